// A damaged window: looked at, then checked and repaired by the calls of a daemon. Nothing may fault or loop, and what
// a repair calls mended, is.
//
// The input is a list of changes: where (in one of the window's parts), what (raw words, addresses that lie in the
// window, small numbers). Its first byte may cut the window off as well; a cut one is looked at alone.
#include <unistd.h>

#include "check/check.h"
#include "encap_inspect.h"
#include "fuzz_input.h"
#include "model/operations.h"
#include "shmwin/layout.h"
#include "support/window.h"

namespace {

crash::Window *window;
encap_db_config_t config;
crash::Image sound_window;

// Several tunnels and NHs, shared ones, and NHs on the null tunnel.
void enter_some() {
  encap_test::Model model(crash::kNhStart, crash::kNhSize, crash::kTunStart, crash::kTunSize);
  std::uint32_t nh = crash::kNhStart;
  for (std::uint32_t label2 : {200u, 201u, 202u, 0u}) {
    for (std::uint32_t label1 = 16; label1 < 24; ++label1, ++nh) {
      const crash::Operation enter =
          crash::entering(model, crash::key_of(label1, label2, 1), nh, label2 == 0 ? 0 : label2 - 190);
      crash::on_database(enter);
      crash::on_model(model, enter);
    }
  }
}

std::size_t place(fuzz::Input &input) {
  const auto header = sizeof(vrellis::WindowHeader);
  const vrellis::WindowShape shape = vrellis::shape_of_size(sound_window.size());
  const std::uint16_t offset = input.take<std::uint16_t>();
  switch (input.below(8)) {
    case 0:
      return offset % 1024;
    case 1:
      return 1024 + offset % sizeof(egress_encap_db_t);
    case 2:
      return 4096 + offset % 512;  // the undo log's beginning
    case 3:
      return header + offset % (shape.heap - header);
    case 4:
      return offset % sound_window.size();
    default:
      return shape.heap + offset % (4 * vrellis::kPageBytes);  // arrays and nodes
  }
}

std::uint64_t word(fuzz::Input &input) {
  const auto base = reinterpret_cast<std::uint64_t>(window->bytes());
  const vrellis::WindowShape shape = vrellis::shape_of_size(sound_window.size());
  switch (input.below(4)) {
    case 0:
      return input.take<std::uint64_t>();
    case 1:
      return base + input.take<std::uint16_t>();
    case 2:
      return base + shape.heap + 2 * vrellis::kPageBytes + 8 * (input.take<std::uint16_t>() % 1024u);
    default:
      return input.take<std::uint8_t>();
  }
}

// Returns how many bytes of the window are left.
std::size_t damage(crash::Image &image, fuzz::Input &input) {
  const std::uint8_t cut = input.take<std::uint8_t>();
  for (unsigned changes = 0; !input.empty() && changes < 24; ++changes) {
    const std::size_t offset = place(input);
    const std::uint64_t value = word(input);
    const std::size_t width = std::size_t{1} << input.below(4);
    std::memcpy(image.data() + offset, &value, std::min(width, image.size() - offset));
  }
  return cut < 240 ? image.size() : image.size() * (cut - 240u) / 16 + cut % 7;
}

void look(const crash::Image &image, std::size_t size) {
  const auto view = encap_inspect::View::copy_of(image.data(), size);
  const encap_inspect::Database database = encap_inspect::decode(view);
  for (const encap_inspect::NhNode &nh : database.nhs) {
    database.nh_slot(nh.nh_index);
  }
  encap_inspect::check(view);
}

// The lock and who is attached stay whole: a repair waits for a lock that a living thread holds.
void keep_lock(crash::Image &image) {
  const auto lock = reinterpret_cast<std::uint8_t *>(&egress_encap_db->lock) - window->bytes();
  std::memcpy(image.data() + lock, sound_window.data() + lock, sizeof(egress_encap_lock_t));
}

// No operation reads the spare bits of a slot in use. Damage there stays and does no harm.
void clear_spare_bits() {
  egress_encap_db_t &db = *egress_encap_db;
  for (std::uint32_t i = 0; i < db.nh_end - db.nh_start; ++i) {
    egr_nh_info_t &slot = db.nh_info_array[i];
    slot.spare_word1 = 0;
    slot.spare_word2 = 0;
    slot.spare = 0;
  }
  for (std::uint32_t i = 0; i <= db.tun_end - db.tun_start; ++i) {
    egr_tun_info_t &slot = db.tun_info_array[i];
    slot.spare_word1 = 0;
    slot.spare_word2 = 0;
    slot.spare = 0;
    std::memset(slot.zero, 0, sizeof slot.zero);
  }
}

struct Found {
  std::string faults;         // a line each
  bool shared_index = false;  // two tunnels of the same labels, on different interfaces, have one index
};

void add(const encap_finding_t *finding, void *arg) {
  auto &found = *static_cast<Found *>(arg);
  if (finding->severity != ENCAP_FINDING_NOTE) {
    found.faults += std::string(finding->name) + ": " + finding->text + '\n';
  }
  found.shared_index = found.shared_index || std::strcmp(finding->name, "tunnel-index-shared") == 0;
}

// Checks the database, without waiting for a lock that damage calls held.
Found check_database() {
  const encap_check_options_t hasty{.bytes = 0, .patience_ms = 1};
  Found found;
  encap_check_result_t result{};
  const int status = encap_db_check(&config, &hasty, add, &found, &result);
  const bool agrees = status == EAGAIN || (status == 0 && (result.sound != 0) == found.faults.empty());
  if (!agrees || result.text[0] == '\0') {
    fuzz::found("a check returned " + std::to_string(status) + ": " + result.text);
  }
  return found;
}

void mend(crash::Image &image) {
  window->put(image);
  check_database();
  keep_lock(image);
  window->put(image);
  const std::string before = check_database().faults;
  if (encap_db_repair(&config, nullptr, nullptr, nullptr, nullptr) != 0) {
    return;
  }
  const Found after = check_database();
  std::string wrong = after.faults;
  // With other ranges than it was made with it is another database, and some slots have no index any more.
  const egress_encap_db_t &db = *egress_encap_db;
  if (wrong.empty() && !after.shared_index && db.nh_start == crash::kNhStart && db.tun_start == crash::kTunStart) {
    // The trees are all there is to know: slots and counts follow from them.
    clear_spare_bits();
    const encap_test::Model model = encap_test::model_of(*egress_encap_db);
    wrong = encap_test::differences(*egress_encap_db, model);
  }
  if (!wrong.empty()) {
    fuzz::found(wrong + "before:\n" + before);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
  static const crash::Directory directory;
  config = crash::config_in(directory);
  static crash::Window opened(directory, config);
  window = &opened;
  enter_some();
  sound_window = opened.image();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  fuzz::Input input(data, size);
  crash::Image image = sound_window;
  const std::size_t left = damage(image, input);
  look(image, left);
  if (left == image.size()) {
    mend(image);
  }
  return 0;
}
