// A client beside the operations that it is made of, on one database: every encapsulation of the workload is entered
// through the operations, and the client holds a reference on each.
#include <iostream>

#include "contestants/db.h"
#include "encap_client.h"
#include "measuring/clock.h"
#include "measuring/workload.h"
#include "report/results.h"

namespace encap_bench {
namespace {

constexpr std::uint32_t kPairs = 40000;  // timed in a round, after half as many that warm the caches
constexpr std::uint32_t kFew = 100;      // holdings of a client that holds little

[[noreturn]] void fail(const std::string &what) {
  std::cerr << "encap_bench_clients: " << what << '\n';
  std::exit(1);
}

void require(int status, const char *what) {
  if (status != 0) {
    fail(std::string(what) + " returned " + std::to_string(status));
  }
}

// Returns: the processor time of one call of `step`, in nanoseconds. `step` takes a position, which goes on from where
// the round before ended, and is the same for both contestants.
template <typename Step>
double time_of(int round, std::size_t positions, Step step) {
  std::size_t at = std::size_t(round) * (kPairs + kPairs / 2) % positions;
  const auto run = [&](std::uint32_t count) {
    for (; count != 0; --count) {
      step(at);
      at = at + 1 == positions ? 0 : at + 1;
    }
  };
  run(kPairs / 2);
  const double before = processor_ns();
  run(kPairs);
  return (processor_ns() - before) / kPairs;
}

class Bench {
 public:
  Bench(const std::string &size, const std::string &results, const std::string &directory)
      : workload_(shape_of(size)), size_(size), results_(results), directory_(directory) {
    config_.name = "bench";
    config_.database.directory = directory_.c_str();
    config_.database.name = "clients";
    config_.database.shm_id = 3;
    config_.database.nh_start = config_.database.tun_start = kFirstIndex;
    config_.database.nh_size = workload_.nh_room();
    config_.database.tun_size = workload_.tunnel_room;
    config_.database.size = 2 * encap_db_default_size(&config_.database) + (1 << 20);
  }

  void measure(int rounds) {
    require(encap_db_open(&config_.database, nullptr, nullptr), "opening the database");
    measure_memory();
    require(encap_client_close(client_), "closing");
    require(encap_db_close(), "closing the database");
    const double before = processor_ns();
    client_ = opened();
    record("ms", "open a client that holds all, ms", 0, (processor_ns() - before) / 1e6);
    for (int round = 0; round < rounds; ++round) {
      measure_refresh(round);
      measure_present(round);
      measure_new(round);
    }
    require(encap_client_close(client_), "closing");
    require(encap_db_destroy(directory_.c_str(), config_.database.name, 1, nullptr), "removing the window");
  }

 private:
  void record(const char *kind, const char *what, int round, double value, const char *who = "client") {
    append_sample(results_, {kind, size_, what, who}, round, value);
  }

  encap_client_t *opened() const {
    encap_client_t *client = nullptr;
    shmwin_error_t error{};
    if (encap_client_open(&config_, &client, &error) != 0) {
      fail(error.text);
    }
    return client;
  }

  std::uint32_t enter(const Key &key) {
    encap_entry_t entry{};
    require(encap_client_enter(client_, key, nullptr, &entry), "an entry");
    return entry.nh;
  }

  void measure_memory() {
    std::vector<bool> has_tunnel(workload_.tunnel_room + kFirstIndex);
    for (const Encap &encap : workload_.entered) {
      require(!EncapDb::insert(encap, !has_tunnel[encap.tun]), "an insert");
      has_tunnel[encap.tun] = true;
    }
    const double without = static_cast<double>(EncapDb::bytes());
    const auto more = [&] { return static_cast<double>(EncapDb::bytes()) - without; };
    client_ = opened();
    for (std::uint32_t i = 0; i < kFew; ++i) {
      enter(workload_.entered[i].key);
    }
    record("bytes", "a client of 100 holdings, bytes", 0, more());
    require(encap_client_leave(client_, nullptr, nullptr), "leaving");
    record("bytes", "no client, bytes", 0, more());
    client_ = opened();
    for (const Encap &encap : workload_.entered) {
      enter(encap.key);
    }
    record("bytes", "a holding, bytes", 0, more() / static_cast<double>(workload_.entered.size()));
  }

  void measure_refresh(int round) {
    const double before = processor_ns();
    require(encap_client_refresh_begin(client_), "a refresh");
    for (const Encap &encap : workload_.entered) {
      enter(encap.key);
    }
    require(encap_client_refresh_end(client_, nullptr, nullptr), "the end of a refresh");
    record("ms", "refresh of all holdings, ms", round, (processor_ns() - before) / 1e6);
  }

  void measure_present(int round) {
    constexpr char kWhat[] = "present key entered, released";
    const auto &used = workload_.used;
    const auto raw = [&](std::size_t i) {
      const Found found = EncapDb::share(used[i].key);
      require(!found.nh_found || !EncapDb::release({used[i].key, found.nh, found.tun}), "a share and its release");
    };
    const auto client = [&](std::size_t i) {
      require(encap_client_release(client_, enter(used[i].key), nullptr), "a release");
    };
    record("ns", kWhat, round, time_of(round, used.size(), raw), "encap_db");
    record("ns", kWhat, round, time_of(round, used.size(), client));
  }

  // On tunnels that are there. The index of the raw NH is the last one, which the client has not given out.
  void measure_new(int round) {
    constexpr char kWhat[] = "new NH entered, released";
    const auto &keys = workload_.missing_nh;
    std::vector<std::uint32_t> tunnels;
    for (const Key &key : keys) {
      tunnels.push_back(EncapDb::find(key).tun);
    }
    const std::uint32_t last = kFirstIndex + workload_.nh_room() - 1;
    const auto raw = [&](std::size_t i) {
      const Encap encap{keys[i], last, tunnels[i]};
      require(!EncapDb::insert(encap, false) || !EncapDb::release(encap), "an insert and its release");
    };
    const auto client = [&](std::size_t i) {
      require(encap_client_release(client_, enter(keys[i]), nullptr), "a release");
    };
    record("ns", kWhat, round, time_of(round, keys.size(), raw), "encap_db");
    record("ns", kWhat, round, time_of(round, keys.size(), client));
  }

  Workload workload_;
  std::string size_;
  std::string results_;
  std::string directory_;
  encap_client_config_t config_{};
  encap_client_t *client_ = nullptr;
};

}  // namespace
}  // namespace encap_bench

int main(int argc, char **argv) {
  if (argc < 5) {
    encap_bench::fail("usage: encap_bench_clients SIZE ROUNDS RESULTS DIRECTORY");
  }
  encap_bench::Bench(argv[1], argv[3], argv[4]).measure(std::stoi(argv[2]));
  return 0;
}
