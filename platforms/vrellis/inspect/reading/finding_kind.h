// The kinds of findings: what each is called, how severe it is, and what repair does about it.
#ifndef ENCAP_INSPECT_FINDING_KIND_H
#define ENCAP_INSPECT_FINDING_KIND_H

#include <cstddef>
#include <cstdint>

namespace encap_inspect {

enum class Severity {
  kNote,     // sound, and worth knowing: nothing needs to be done
  kPartial,  // what a process's death in an operation leaves: repair mends it
  kDamage,   // what no death leaves: something else wrote into the window
};

// kind, name, severity, what repair does
#define ENCAP_FINDING_KINDS(X)                                                                                      \
  X(kNotAWindow, "not-a-window", kDamage, "nothing: the window is to be made anew")                                 \
  X(kTruncated, "truncated", kDamage, "nothing: the window is to be made anew")                                     \
  X(kLayoutVersion, "layout-version", kDamage, "nothing: use tools and libraries of that layout version")           \
  X(kOtherNamespace, "other-namespace", kDamage, "nothing: no process of this PID namespace can attach the window") \
  X(kHeaderIdentity, "header-identity", kDamage, "nothing: the window is to be made anew")                          \
  X(kNotInitialised, "not-initialised", kPartial, "nothing: the next owner that opens it makes the database")       \
  X(kHeaderRange, "header-range", kDamage, "nothing: the window is to be made anew")                                \
  X(kHeaderArray, "header-array", kDamage, "nothing: the window is to be made anew")                                \
  X(kLockDeadOwner, "lock-dead-owner", kPartial, "takes the lock over, as the next operation would")                \
  X(kLockLost, "lock-lost", kDamage, "makes the lock anew if no process has the window attached")                   \
  X(kLockDamaged, "lock-damaged", kDamage, "makes the lock anew if no process has the window attached")             \
  X(kUndoLogInUse, "undo-log-in-use", kPartial, "rolls the change back, as the next operation would")               \
  X(kUndoLogDamaged, "undo-log-damaged", kDamage, "empties the log")                                                \
  X(kPointerOutside, "pointer-outside", kDamage, "rebuilds the tree from its nodes and slots")                      \
  X(kTreeCycle, "tree-cycle", kDamage, "rebuilds the tree from its nodes and slots")                                \
  X(kTreeDepth, "tree-depth", kDamage, "rebuilds the tree from its nodes and slots")                                \
  X(kTreeOrder, "tree-order", kDamage, "rebuilds the tree from its nodes and slots")                                \
  X(kTreeBalance, "tree-balance", kDamage, "rebuilds the tree from its nodes and slots")                            \
  X(kTreeParent, "tree-parent", kDamage, "rebuilds the tree from its nodes and slots")                              \
  X(kRootField, "root-field", kDamage, "rebuilds the tree from its nodes and slots")                                \
  X(kTreeLost, "tree-lost", kPartial, "links the nodes of counted slots back into their tree")                      \
  X(kNodeWithoutSlot, "node-without-slot", kPartial, "takes the node out")                                          \
  X(kSlotHalfFilled, "slot-half-filled", kPartial, "takes the node out and clears the slot")                        \
  X(kSlotWithoutNode, "slot-without-node", kPartial, "clears the slot")                                             \
  X(kSlotResidue, "slot-residue", kPartial, "clears the slot")                                                      \
  X(kSlotNodeMismatch, "slot-node-mismatch", kPartial, "writes the slot's key and tunnel as the trees have them")   \
  X(kDuplicateIndex, "duplicate-index", kPartial, "keeps the node that agrees with the slot, takes the other out")  \
  X(kTunnelIndexMismatch, "tunnel-index-mismatch", kDamage, "gives the node the index that its NHs' slots have")    \
  X(kTunnelWithoutSlot, "tunnel-without-slot", kPartial, "fills the slot, or takes a tunnel without NHs out")       \
  X(kTunnelSlotWithoutNode, "tunnel-slot-without-node", kPartial, "clears the slot")                                \
  X(kTunnelSlotResidue, "tunnel-slot-residue", kPartial, "clears the slot")                                         \
  X(kTunnelSlotMismatch, "tunnel-slot-mismatch", kPartial, "writes the slot's labels as the tree has them")         \
  X(kTunnelWithoutIndex, "tunnel-without-index", kPartial, "gives it a free index, or takes it out with its NHs")   \
  X(kTunnelGivenBack, "tunnel-given-back", kPartial, "takes the tunnel out with its NH, which has no users")        \
  X(kTunnelInDoubt, "tunnel-in-doubt", kPartial, "sets the count; the tunnel has to be put into the hardware")      \
  X(kTunnelCount, "tunnel-count", kPartial, "sets the count to the number of NHs on the tunnel")                    \
  X(kNullTunnelCount, "null-tunnel-count", kPartial, "sets the count to the number of NHs on null tunnels")         \
  X(kNodeResidue, "node-residue", kDamage, "zeroes the spare bytes")                                                \
  X(kBlockUnreachable, "block-unreachable", kPartial, "frees the block")                                            \
  X(kBlockNotTaken, "block-not-taken", kDamage, "marks the block as in use")                                        \
  X(kHeapPage, "heap-page", kDamage, "rewrites the page's descriptor")                                              \
  X(kHeapHint, "heap-hint", kDamage, "enters the page in the set again")                                            \
  X(kHeapCount, "heap-count", kPartial, "counts the pages in use anew")                                             \
  X(kClientsDamaged, "clients-damaged", kDamage, "nothing: what the clients hold cannot be made out")               \
  X(kLedgerCount, "ledger-count", kDamage, "nothing: the clients give back what they hold, or reclaim it")          \
  X(kTunnelWithoutNh, "tunnel-without-nh", kNote, "takes the tunnel out, unless told to keep it")                   \
  X(kTunnelIndexShared, "tunnel-index-shared", kNote, "nothing: the callers chose one index for two tunnels")       \
  X(kNhCountZero, "nh-count-zero", kNote, "nothing, unless told to take NHs without users out")

enum class FindingKind : std::uint8_t {
#define ENCAP_FINDING_KIND(kind, name, severity, repair) kind,
  ENCAP_FINDING_KINDS(ENCAP_FINDING_KIND)
#undef ENCAP_FINDING_KIND
};
#define ENCAP_FINDING_ONE(kind, name, severity, repair) +1
inline constexpr std::size_t kFindingKinds = 0 ENCAP_FINDING_KINDS(ENCAP_FINDING_ONE);
#undef ENCAP_FINDING_ONE

const char *name_of(FindingKind kind);  // stable, in kebab case
Severity severity_of(FindingKind kind);
const char *repair_of(FindingKind kind);  // "repair <this>"
const char *name_of(Severity severity);   // "note", "partial", "damage"

}  // namespace encap_inspect

#endif
