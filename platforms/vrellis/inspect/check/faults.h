// The faults of a database, as check tells them and as repair works through them. For the inspector alone.
#ifndef ENCAP_INSPECT_FAULTS_H
#define ENCAP_INSPECT_FAULTS_H

#include <string>
#include <vector>

#include "check.h"
#include "reading/survey.h"

namespace encap_inspect {

// What a finding is about. Which fields mean something depends on the kind; findings.cc says how each reads.
struct Fault {
  FindingKind kind;
  std::uint32_t nh_index = kNoIndex;
  std::uint32_t tunnel = kNoIndex;  // index
  Address address = 0;
  std::uint64_t found = 0;       // the value there is
  std::uint64_t wanted = 0;      // the value there should be
  std::uint32_t node = kNoNode;  // number of the node in Database::nhs, or ::tunnels for a fault of a tunnel
};

struct Faults {
  std::vector<Fault> all;
  std::string refusal;  // what an attach says of the window's header

  // What the entries come down to. A rebuild of a tree goes by it.
  std::vector<bool> nh_goes;                    // by NH node: it is to leave its tree
  std::vector<bool> tunnel_empty;               // by tunnel node: no NH stays or comes back
  std::vector<std::uint32_t> users;             // by tunnel slot: NHs that it should count
  std::vector<std::uint32_t> tunnels_with_nhs;  // by tunnel slot
  std::vector<std::uint32_t> stays;             // by tunnel node: NHs that stay or come back
  std::vector<bool> is_stale;                   // by tunnel slot: a removal of one of its NHs left the NH's slot behind
};

// `survey` is of a settled view.
void find_heap_faults(const Survey &survey, Faults *faults);
void find_tree_faults(const Survey &survey, Faults *faults);
void find_entry_faults(const Survey &survey, Faults *faults);
void find_tunnel_faults(const Survey &survey, Faults *faults);  // requires what find_entry_faults() fills
void find_client_faults(const Survey &survey, Faults *faults);
inline void find_faults(const Survey &survey, Faults *faults) {
  find_tree_faults(survey, faults);
  find_entry_faults(survey, faults);
  find_heap_faults(survey, faults);
  find_client_faults(survey, faults);
}

// Of the window itself, its lock and its undo log. Returns: whether the database can be looked at.
bool find_window_faults(const Survey &survey, bool log_sound, Faults *faults);

// Sorts the faults by kind.
Report report_of(Faults &faults, bool looked);

std::string sentence_of(const Faults &faults, const Fault &fault);  // what is wrong
std::string mending_of(const Fault &fault);                         // what repair did about it

}  // namespace encap_inspect

#endif
