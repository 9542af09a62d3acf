// Inputs that once went wrong.
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <fstream>
#include <vector>

#include "check.h"
#include "ltrace/file.h"
#include "ltrace/reader.h"
#include "repair.h"
#include "support/operations.h"
#include "support/window.h"

namespace crash {
namespace {

// A ring that claims to have been written up to the end of all numbers: the reader's next block wrapped round to 0.
TEST(TraceFinding, ARingWrittenToTheEndOfAllNumbersEnds) {
  const Directory directory("/tmp");
  const std::string path = directory.path() + "/trace";
  std::vector<char> bytes(vrellis::kRingHeaderBytes + vrellis::kMinRingKib * 1024);
  auto &header = *reinterpret_cast<vrellis::FileHeader *>(bytes.data());
  header.magic = vrellis::kTraceMagic;
  header.version = vrellis::kTraceVersion;
  header.header_bytes = vrellis::kRingHeaderBytes;
  header.block_words = vrellis::kBlockWords;
  header.ring_words = vrellis::kMinRingKib * 1024 / 8;
  header.num_rings = 1;
  header.ring[0].head = UINT64_MAX;
  header.ring[0].epoch = 2;
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  std::string error;
  std::vector<std::unique_ptr<vrellis::TraceFile>> files;
  files.push_back(vrellis::TraceFile::open(path, error));
  ASSERT_NE(files.front(), nullptr) << error;
  alarm(10);
  EXPECT_TRUE(vrellis::merge_traces(files).events.empty());
  alarm(0);
}

// Between taking a dead holder's mutex over and making it consistent, its owner field names no thread; a process that
// dies just there leaves it so.
TEST(LockFinding, ADeathWhileTheLockIsTakenOverIsNoDamage) {
  const Directory directory;
  const Window window(directory, config_in(directory));
  auto &mutex = egress_encap_db->lock.mutex.__data;
  mutex.__lock = 0x40000000;  // the kernel's mark: its owner died
  mutex.__owner = INT_MAX;
  const auto report = encap_inspect::check(encap_inspect::View::over(window.bytes(), window.size()));
  EXPECT_EQ(report.count_of(encap_inspect::FindingKind::kLockDamaged), 0u);
  EXPECT_EQ(report.count_of(encap_inspect::FindingKind::kLockDeadOwner), 1u);
  const encap_inspect::RepairResult repaired = encap_inspect::repair(kWindowId);
  EXPECT_EQ(repaired.status, 0) << repaired.error;
  EXPECT_TRUE(repaired.after.sound());
}

}  // namespace
}  // namespace crash
