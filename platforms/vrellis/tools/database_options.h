// Options of the programs that open a database: its ranges, and whose window they trust.
#ifndef VRELLIS_TOOLS_DATABASE_OPTIONS_H
#define VRELLIS_TOOLS_DATABASE_OPTIONS_H

#include <grp.h>
#include <pwd.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <string>

#include "ranges.h"

namespace vrellis_tools {

inline void add_range_options(CLI::App &app, encap_inspect::Ranges &ranges) {
  app.add_option("--shm-id", ranges.shm_id, "Id of the window (default: 1)")->type_name("ID");
  app.add_option("--nh-start", ranges.nh_start, "First NH index (default: 1000)")->type_name("N");
  app.add_option("--nh-size", ranges.nh_size, "NH indexes (default: 65536)")->type_name("N");
  app.add_option("--tun-start", ranges.tun_start, "First tunnel index (default: 1)")->type_name("N");
  app.add_option("--tun-size", ranges.tun_size, "Tunnel indexes (default: 16384)")->type_name("N");
}

// The id of a user or group; `known` is what the system knows by that name, or nullptr. A number stands for itself.
template <typename Entry, typename Id>
std::string replace_by_id(std::string &text, const char *what, const Entry *known, Id Entry::*id) {
  std::uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (known == nullptr && (error != std::errc{} || end != text.data() + text.size())) {
    return "there is no " + std::string(what) + " '" + text + "'";
  }
  text = known != nullptr ? std::to_string(known->*id) : text;
  return "";
}

inline void add_owner_options(CLI::App &app, encap_inspect::Owner &owner) {
  const auto user = [](std::string &text) {
    return replace_by_id(text, "user", getpwnam(text.c_str()), &passwd::pw_uid);
  };
  const auto group = [](std::string &text) {
    return replace_by_id(text, "group", getgrnam(text.c_str()), &group::gr_gid);
  };
  app.add_option("--user", owner.user, "Trust the window of this user, too")
      ->type_name("USER")
      ->transform(CLI::Validator(user, ""));
  app.add_option("--group", owner.group, "Trust the window of this group, too; its members may write to it")
      ->type_name("GROUP")
      ->transform(CLI::Validator(group, ""));
}

}  // namespace vrellis_tools

#endif
