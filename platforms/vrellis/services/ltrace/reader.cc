#include "ltrace/reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>

#include "ltrace/decoder.h"
#include "ltrace/file.h"
#include "ltrace/proc.h"
#include "ptd/entry.h"

namespace vrellis {
namespace {

// A thread writes its records in bursts: one comes this soon after the one before it, unless a time stamp says sooner.
constexpr std::uint64_t kBurstNs = 1000;

// Tries at a ring that changes its owner, or is overwritten, under the reader.
constexpr int kTries = 8;

// Blocks copied between two looks at the writer.
constexpr std::uint64_t kCopyBlocks = 4;
static_assert(std::uint64_t{kMinRingKib} * 1024 / sizeof(std::uint64_t) % (kCopyBlocks * kBlockWords) == 0);

// Reads up to `bytes` at `offset`; what the file does not have is zero.
std::size_t read_at(int fd, void *out, std::size_t bytes, std::uint64_t offset) {
  std::memset(out, 0, bytes);
  std::size_t done = 0;
  while (done < bytes) {
    const ssize_t got = pread(fd, static_cast<char *>(out) + done, bytes - done, static_cast<off_t>(offset + done));
    if (got <= 0 && !(got < 0 && errno == EINTR)) {
      break;
    }
    done += got > 0 ? static_cast<std::size_t>(got) : 0;
  }
  return done;
}

std::string printable(const char *text, std::size_t room) {
  std::string out(text, strnlen(text, room));
  std::replace_if(
      out.begin(), out.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
  return out;
}

// Why the header is none that we can read; empty when it is one.
std::string header_fault(const FileHeader &header, std::size_t bytes) {
  if (bytes < sizeof header || header.magic != kTraceMagic) {
    return "is no trace file";
  }
  if (header.version != kTraceVersion) {
    return "has version " + std::to_string(header.version) + ", this reader knows " + std::to_string(kTraceVersion);
  }
  const std::uint64_t kib = std::uint64_t{header.ring_words} * sizeof(std::uint64_t) / 1024;
  if (header.header_bytes != kRingHeaderBytes || header.block_words != kBlockWords || header.num_rings == 0 ||
      header.num_rings > kMaxRings || !std::has_single_bit(header.ring_words) || kib < kMinRingKib ||
      kib > kMaxRingKib || header.tick_kind > TickKind::kTsc) {
    return "has a damaged header";
  }
  return {};
}

std::uint64_t first_whole_block(std::uint64_t head, std::uint64_t blocks) {
  const std::uint64_t open = head / kBlockWords;
  return open >= blocks ? open - blocks + 1 : 0;
}

}  // namespace

// A ring's words as they were copied, of which the blocks from `first` up to position `head` are known to be whole.
struct TraceFile::RingCopy {
  RingEntry entry;
  std::vector<std::uint64_t> words;
  std::uint64_t first = 0;
  std::uint64_t oldest = 0;  // the oldest block that the ring had; older than `first` when that was all that was wanted
  std::uint64_t head = 0;

  std::span<const std::uint64_t> block(std::uint64_t number) const {
    const std::uint64_t begin = number * kBlockWords;
    return {&words[begin % words.size()], std::min<std::uint64_t>(kBlockWords, head - begin)};
  }
};

TraceFile::TraceFile(std::string path, int fd, uid_t uid)
    : path_(std::move(path)), fd_(fd), uid_(uid), header_(std::make_unique<FileHeader>()) {}

TraceFile::~TraceFile() {
  close(fd_);
}

std::unique_ptr<TraceFile> TraceFile::open(const std::string &path, std::string &error) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW);
  if (fd < 0) {
    error = path + (errno == ELOOP ? " is a symbolic link" : std::string(": ") + std::strerror(errno));
    return nullptr;
  }
  struct stat status {};
  if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    error = path + " is no regular file";
    close(fd);
    return nullptr;
  }
  std::unique_ptr<TraceFile> file(new TraceFile(path, fd, status.st_uid));
  const std::size_t got = read_at(fd, file->header_.get(), sizeof(FileHeader), 0);
  const std::string fault = header_fault(*file->header_, got);
  if (!fault.empty()) {
    error = path + " " + fault;
    return nullptr;
  }
  return file;
}

std::uint32_t TraceFile::pid() const {
  return header_->pid;
}
std::uint32_t TraceFile::num_rings() const {
  return header_->num_rings;
}
std::string TraceFile::comm() const {
  return printable(header_->comm, sizeof header_->comm);
}

bool TraceFile::alive() const {
  return liveness_of({static_cast<pid_t>(header_->pid), header_->start_time, header_->pid_namespace}) !=
         Liveness::kDead;
}

std::string TraceFile::component(std::uint32_t tag) const {
  char name[kNameBytes];
  tag %= LTRACE_MAX_COMPONENTS;
  if (header_->component[tag][0] != '\0') {
    return printable(header_->component[tag], kNameBytes);
  }
  read_at(fd_, name, sizeof name, offsetof(FileHeader, component) + std::uint64_t{tag} * kNameBytes);
  return printable(name, sizeof name);
}

std::uint64_t TraceFile::counter(std::uint64_t offset) const {
  std::uint64_t value = 0;
  read_at(fd_, &value, sizeof value, offset);
  return value;
}

std::uint64_t TraceFile::rings_refused() const {
  return counter(offsetof(FileHeader, rings_refused));
}
std::uint64_t TraceFile::records_dropped() const {
  return counter(offsetof(FileHeader, records_dropped));
}

RingEntry TraceFile::entry(std::uint32_t ring) const {
  RingEntry entry;
  read_at(fd_, &entry, sizeof entry, offsetof(FileHeader, ring) + ring * sizeof entry);
  return entry;
}

std::uint64_t TraceFile::word_offset(std::uint32_t ring, std::uint64_t position) const {
  const std::uint64_t words = header_->ring_words;
  return kRingHeaderBytes + (ring * words + position % words) * sizeof(std::uint64_t);
}

bool TraceFile::is_used(std::uint32_t ring) const {
  return entry(ring).head != 0;
}

std::vector<ptd_wait_t> TraceFile::waits() const {
  std::vector<ptd_wait_t> out;
  for (std::uint32_t ring = 0; ring < num_rings(); ++ring) {
    ptd_wait_t wait;
    for (int i = 0; i < kTries; ++i) {
      RingEntry before = entry(ring);
      const RingEntry after = entry(ring);
      if (before.owner != 0 && std::memcmp(&before.wait, &after.wait, sizeof after.wait) == 0 &&
          read_wait(before, wait)) {
        std::string function = printable(wait.function, sizeof wait.function);
        std::copy(function.begin(), function.end(), wait.function);
        out.push_back(wait);
        break;
      }
    }
  }
  return out;
}

// From the newest block back to the oldest, since the writer overwrites the oldest first.
// Returns: false when the ring came to another owner meanwhile, or nothing of it was left.
bool TraceFile::copy_ring(std::uint32_t ring, std::uint64_t most_bytes, RingCopy &copy) const {
  copy.entry = entry(ring);
  copy.head = copy.entry.head;
  const std::uint64_t blocks = header_->ring_words / kBlockWords;
  copy.words.assign(header_->ring_words, 0);
  const std::uint64_t end = copy.head / kBlockWords + 1;
  copy.oldest = first_whole_block(copy.head, blocks);
  const std::uint64_t wanted = std::max<std::uint64_t>(most_bytes / (kBlockWords * sizeof(std::uint64_t)), 1);
  copy.first = std::max(copy.oldest, end - std::min(end, wanted));
  RingEntry now = copy.entry;
  for (std::uint64_t next = end; next > copy.first;) {
    const std::uint64_t begin = std::max(copy.first, (next - 1) / kCopyBlocks * kCopyBlocks);
    const std::uint64_t word = begin * kBlockWords % copy.words.size();
    const std::uint64_t bytes = (next - begin) * kBlockWords * sizeof(std::uint64_t);
    read_at(fd_, &copy.words[word], bytes, word_offset(ring, word));
    now = entry(ring);
    const std::uint64_t lost = first_whole_block(now.head, blocks);
    if (lost > begin) {
      copy.first = std::max(copy.first, lost);
      copy.oldest = copy.first;
      break;
    }
    next = begin;
  }
  return now.epoch == copy.entry.epoch && copy.entry.epoch % 2 == 0 && copy.first < end;
}

std::vector<TraceRecord> TraceFile::records(std::uint32_t ring, const TickClock &clock, RingReport &report,
                                            std::uint64_t most_bytes) const {
  report = {};
  RingCopy copy;
  bool copied = false;
  for (int i = 0; i < kTries && !copied; ++i) {
    copied = copy_ring(ring, most_bytes, copy);
  }
  report.tid = copy.entry.tid;
  report.owned = copy.entry.owner != 0;
  report.overwritten_words = copy.oldest * kBlockWords;
  if (!copied || copy.head == 0) {
    return {};
  }
  Decoder decoder(this, copy.entry.tid, clock.ticks_in(kBurstNs));
  const std::span<const std::uint64_t> oldest = copy.block(copy.first);
  report.overwritten_records = oldest.size() >= kBlockHeadWords ? oldest[1] : 0;
  if (copy.oldest < copy.first) {
    const std::uint64_t before = counter(word_offset(ring, copy.oldest * kBlockWords + 1));
    report.left_unread = report.overwritten_records - std::min(before, report.overwritten_records);
    report.overwritten_records -= report.left_unread;
  }
  const std::uint64_t end = copy.head / kBlockWords + (copy.head % kBlockWords != 0);
  for (std::uint64_t number = copy.first; number < end; ++number) {
    if (!decoder.add_block(copy.block(number))) {
      ++report.damaged_blocks;
    }
  }
  std::vector<TraceRecord> records = decoder.finish();
  for (TraceRecord &record : records) {
    record.time_ns = clock.realtime_ns(record.ticks);
  }
  report.records = records.size();
  return records;
}

}  // namespace vrellis
