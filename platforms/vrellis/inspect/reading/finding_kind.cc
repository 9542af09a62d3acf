#include "finding_kind.h"

namespace encap_inspect {
namespace {

struct KindRow {
  const char *name;
  Severity severity;
  const char *repair;
};

constexpr KindRow kRows[] = {
#define ENCAP_FINDING_ROW(kind, name, severity, repair) {name, Severity::severity, repair},
    ENCAP_FINDING_KINDS(ENCAP_FINDING_ROW)
#undef ENCAP_FINDING_ROW
};

const KindRow &row_of(FindingKind kind) {
  return kRows[static_cast<std::size_t>(kind)];
}

}  // namespace

const char *name_of(FindingKind kind) {
  return row_of(kind).name;
}

Severity severity_of(FindingKind kind) {
  return row_of(kind).severity;
}

const char *repair_of(FindingKind kind) {
  return row_of(kind).repair;
}

const char *name_of(Severity severity) {
  return severity == Severity::kNote ? "note" : severity == Severity::kPartial ? "partial" : "damage";
}

}  // namespace encap_inspect
