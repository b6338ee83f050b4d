// The tally of a bound: its type, and how an owner uses one.
#pragma once

#include "decision_bounds/binding/interpreter/view.h"
#include "decision_bounds/held.h"
#include "stub.h"

namespace decision_bounds::binding {

struct HeldObject : NothingMore {
  using Stub = stub::Held;
  static constexpr auto kClass = &State::held;
  Instance<Stub> base;
};

using HeldView = stub::Held::Numbers<View<HeldObject>>;

/// An unpatched tally of ours with unboxed numbers.
class UnboxedHeld : public stub::Held::Numbers<UnboxedFields> {
 public:
  using Numbers::Numbers;
  /// None, where the object is no such tally or there is none. Without a global lock it may go at
  /// any time: it is not looked at.
  static UnboxedHeld of(State& state, PyObject* tally) {
    if (!kSerialized || tally == nullptr) return {};
    auto& base = reinterpret_cast<HeldObject*>(tally)->base;
    if (!state.held.owns(tally, base.dict) || !fit(base.fields)) return {};
    return UnboxedHeld(base.fields);
  }

  bool admits(Unboxed share, Unboxed used, Unboxed limit) const {
    return decision_bounds::admits(*this, share, used, limit);
  }
  void take(Unboxed share) { decision_bounds::take(*this, share); }
  void give_back(Unboxed share) { decision_bounds::give_back(*this, share); }
};

/// An owner's tally, borrowed for one step: native where it is ours and unpatched, else whatever
/// object is in its place.
class Tally {
 public:
  Tally(State& state, PyObject* tally) : state_(&state), tally_(tally) {}

  bool admits(Value share, Value used, Value limit) const {
    const UnboxedHeld own = numbers();
    if (own && share.unboxed() && used.unboxed() && limit.unboxed()) [[likely]]
      return own.admits(share.number(), used.number(), limit.number());
    return admits_slowly(*state_, tally_, share, used, limit);
  }
  void take(Value share) const {
    UnboxedHeld own = numbers();
    if (own && share.unboxed()) [[likely]]
      return own.take(share.number());
    take_slowly(*state_, tally_, share);
  }
  void give_back(Value share) const {
    UnboxedHeld own = numbers();
    if (own && share.unboxed()) [[likely]]
      return own.give_back(share.number());
    give_back_slowly(*state_, tally_, share);
  }

 private:
  UnboxedHeld numbers() const { return UnboxedHeld::of(*state_, tally_); }
  static std::optional<HeldView> own_view(State& state, PyObject* tally);
  // What is rare stands out of line and takes a copy.
  [[gnu::cold, gnu::noinline]] static bool admits_slowly(State& state, PyObject* tally, Value share,
                                                         Value used, Value limit);
  [[gnu::cold, gnu::noinline]] static void take_slowly(State& state, PyObject* tally, Value share);
  [[gnu::cold, gnu::noinline]] static void give_back_slowly(State& state, PyObject* tally,
                                                            Value share);

  State* state_;
  PyObject* tally_;
};

}  // namespace decision_bounds::binding
