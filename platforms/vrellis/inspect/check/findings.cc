// How findings and what repair does about them read.
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "faults.h"

namespace encap_inspect {
namespace {

// In the texts: %n "NH 7", %t "tunnel 7" or "the null tunnel", %T the tree, %a the address, %h the thread found, %f and
// %w the values found and wanted. A kind without a first text reads as an attach refuses it, and so does a fault of the
// header that names no values. What has no second text cannot be mended.
struct Text {
  FindingKind kind;
  const char *sentence;
  const char *mending;
};

using Kind = FindingKind;
constexpr Text kTexts[] = {
    {Kind::kNotAWindow, "", ""},
    {Kind::kTruncated, "", ""},
    {Kind::kLayoutVersion, "", ""},
    {Kind::kOtherNamespace, "", ""},
    {Kind::kHeaderIdentity, "the database's header records window id %f, the window's header %w", ""},
    {Kind::kNotInitialised, "the window holds no initialised database", ""},
    {Kind::kHeaderRange, "an index range in the database's header ends before it begins", ""},
    {Kind::kHeaderArray, "the slot arrays in the database's header are no blocks of the window", ""},
    {Kind::kLockDeadOwner, "%h died holding the lock", "took the lock over from a dead thread"},
    {Kind::kLockLost, "the lock is held by thread %f, which is gone and was not marked as dead", "made the lock anew"},
    {Kind::kLockDamaged, "the lock is no robust, recursive, process-shared mutex any more", "made the lock anew"},
    {Kind::kUndoLogInUse, "a change of a tree was cut off: %f words are to be restored",
     "rolled a change of a tree back: %f words"},
    {Kind::kUndoLogDamaged, "the undo log, in use with %f words, names words that no tree has", "emptied the undo log"},
    {Kind::kPointerOutside, "%T refers to %a, where no node can be", "rebuilt %T"},
    {Kind::kTreeCycle, "%T reaches the node at %a, which is reached elsewhere already", "rebuilt %T"},
    {Kind::kTreeDepth, "%T is deeper at %a than any balanced tree", "rebuilt %T"},
    {Kind::kTreeOrder, "%T is out of order at the node at %a", "rebuilt %T"},
    {Kind::kTreeBalance, "%T is not balanced as recorded at the node at %a", "rebuilt %T"},
    {Kind::kTreeParent, "the node at %a in %T records another parent", "rebuilt %T"},
    {Kind::kRootField, "the root at %a of %T records another root field", "rebuilt %T"},
    {Kind::kTreeLost, "%n is counted by %t and its node is in no tree", "brought %n back into the trees, on %t"},
    {Kind::kNodeWithoutSlot, "the node at %a on %t is linked, its slot (index %n) not filled",
     "took the node at %a out of the tree of %t"},
    {Kind::kSlotHalfFilled, "the node at %a on %t is linked, its slot (index %n) filled in part",
     "took the node at %a out of the tree of %t and cleared the slot of %n"},
    {Kind::kSlotWithoutNode, "%n: its node is gone from %t, its slot not cleared", "cleared the slot of %n"},
    {Kind::kSlotResidue, "%n: the slot is free and not all zero", "zeroed the free slot of %n"},
    {Kind::kSlotNodeMismatch, "%n: slot and node at %a differ in key, interface or tunnel",
     "wrote key and tunnel of %n into its slot as the trees have them"},
    {Kind::kDuplicateIndex, "the node at %a on %t has index %n, which is another node's",
     "took the node at %a with the index of %n out of the tree of %t"},
    {Kind::kTunnelIndexMismatch, "the tunnel node at %a records index %f, the slots of all its NHs %w",
     "gave the tunnel node at %a the index %w that its NHs have"},
    {Kind::kTunnelWithoutSlot, "the tunnel node at %a is linked, its slot (index %w) not filled",
     "set the tunnel node at %a and its slot right, or took it out for want of NHs"},
    {Kind::kTunnelSlotWithoutNode, "%t: its node is gone, its slot not cleared", "cleared the slot of %t"},
    {Kind::kTunnelSlotResidue, "%t: the slot is free and not all zero", "zeroed the free slot of %t"},
    {Kind::kTunnelSlotMismatch, "%t: slot and node at %a differ in their labels",
     "wrote the labels of %t into its slot as the tree has them"},
    {Kind::kTunnelWithoutIndex, "the tunnel node at %a has no index of its own: the slot of %t has other labels",
     "moved the tunnel node at %a with its NHs from %t to tunnel %w"},
    {Kind::kTunnelGivenBack, "%t was given back with %n on it, which has no users",
     "took %n out with %t, which was given back"},
    {Kind::kTunnelInDoubt, "%t may have been given back with %n on it, which has users",
     "set the count of %t to 1 for %n; put the tunnel into the hardware again"},
    {Kind::kTunnelCount, "%t counts %f NHs, %w are on it", "set the count of %t from %f to %w"},
    {Kind::kNullTunnelCount, "%t counts %f NHs, %w are on it", "set the count of %t from %f to %w"},
    {Kind::kNodeResidue, "spare bytes of the node at %a are not zero", "zeroed the spare bytes of the node at %a"},
    {Kind::kBlockUnreachable, "the block at %a is in use and nothing refers to it", "freed the block at %a"},
    {Kind::kBlockNotTaken, "blocks in the page at %a are referred to and not marked as in use",
     "marked blocks in the page at %a as in use"},
    {Kind::kHeapPage, "the descriptor of the page at %a is damaged", "rewrote the descriptor of the page at %a"},
    {Kind::kHeapHint, "the page at %a is missing from set %f of the allocator",
     "entered the page at %a in set %f of the allocator"},
    {Kind::kHeapCount, "the window counts %f pages in use, there are %w", "set the count of pages from %f to %w"},
    {Kind::kClientsDamaged, "what the clients of the database refer to is damaged", ""},
    {Kind::kLedgerCount, "%n counts %f references, its clients hold %w", ""},
    {Kind::kTunnelWithoutNh, "%t has no NH (node at %a)", "took %t, which had no NH, out (node at %a)"},
    {Kind::kTunnelIndexShared, "%t is the index of more than one tunnel (also of the node at %a)", ""},
    {Kind::kNhCountZero, "%n on %t has no users", "took %n, which had no users, out of %t"},
};

// Each kind has its row and its text, in its place.
constexpr bool texts_in_order() {
  for (std::size_t kind = 0; kind < kFindingKinds; ++kind) {
    if (static_cast<std::size_t>(kTexts[kind].kind) != kind) {
      return false;
    }
  }
  return true;
}
static_assert(std::size(kTexts) == kFindingKinds && texts_in_order());

std::string tunnel_text(std::uint32_t index) {
  return index == kNoIndex ? "no tunnel" : index == 0 ? "the null tunnel" : "tunnel " + std::to_string(index);
}

std::string value_text(const Fault &fault, char letter) {
  char hexadecimal[24];
  switch (letter) {
    case 'n':
      return "NH " + std::to_string(fault.nh_index);
    case 't':
      return tunnel_text(fault.tunnel);
    case 'T':
      return fault.tunnel == kNoIndex ? "the tunnel tree" : "the NH tree of " + tunnel_text(fault.tunnel);
    case 'a':
      std::snprintf(hexadecimal, sizeof hexadecimal, "%#" PRIx64, fault.address);
      return hexadecimal;
    case 'h':
      return fault.found != 0 ? "thread " + std::to_string(fault.found) : "a thread that was taking it over";
    case 'f':
      return std::to_string(fault.found);
    default:
      return std::to_string(fault.wanted);
  }
}

std::string expand(const char *text, const Fault &fault) {
  std::string out;
  for (; *text != '\0'; ++text) {
    if (*text == '%') {
      out += value_text(fault, *++text);
    } else {
      out += *text;
    }
  }
  return out;
}

}  // namespace

std::string sentence_of(const Faults &faults, const Fault &fault) {
  const char *const text = kTexts[static_cast<std::size_t>(fault.kind)].sentence;
  const bool refused = *text == '\0' || (fault.kind == Kind::kHeaderIdentity && fault.found == fault.wanted);
  return refused ? faults.refusal : expand(text, fault);
}

std::string mending_of(const Fault &fault) {
  if (fault.kind == Kind::kTunnelWithoutIndex && fault.wanted == kNoIndex) {
    return expand("took the tunnel node at %a out with its NHs, since no tunnel index is free", fault);
  }
  return expand(kTexts[static_cast<std::size_t>(fault.kind)].mending, fault);
}

}  // namespace encap_inspect
