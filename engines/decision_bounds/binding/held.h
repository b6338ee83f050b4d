// The tally of a bound: its type, and how an owner uses one.
#pragma once

#include "decision_bounds/binding/interpreter/view.h"
#include "decision_bounds/held.h"

namespace decision_bounds::binding {

struct HeldObject : NothingMore {
  static constexpr auto kClass = &State::held;
  static constexpr const char* kName = "korvane.engines.decision_bounds._Held";
  Instance<3> base;
};

template <class Fields>
class HeldFields : public Fields {
 public:
  using Fields::Fields;
  using typename Fields::Number;
  Number holders() const { return this->get(0); }
  Number amount() const { return this->get(1); }
  Number unbounded() const { return this->get(2); }
  void set_holders(Number value) const { this->set(0, value); }
  void set_amount(Number value) const { this->set(1, value); }
  void set_unbounded(Number value) const { this->set(2, value); }
};

using HeldView = HeldFields<View<HeldObject>>;

/// An unpatched tally of ours with unboxed numbers.
class UnboxedHeld : public HeldFields<UnboxedFields> {
 public:
  using HeldFields::HeldFields;
  bool admits(Unboxed share, Unboxed used, Unboxed limit) const {
    return decision_bounds::admits(*this, share, used, limit);
  }
  void take(Unboxed share) const { decision_bounds::take(*this, share); }
  void give_back(Unboxed share) const { decision_bounds::give_back(*this, share); }
};

/// An owner's tally, borrowed for one step: native where it is ours and unpatched, else whatever
/// object is in its place.
class Tally {
 public:
  Tally(State& state, PyObject* tally) : state_(&state), tally_(tally) {
    if (Py_TYPE(tally) != state.held.type) [[unlikely]]
      return;
    auto& base = reinterpret_cast<HeldObject*>(tally)->base;
    if (state.held.owns(tally, base.dict)) [[likely]]
      own_ = base.fields;
  }

  bool admits(Value share, Value used, Value limit) const {
    if (unboxed() && share.unboxed() && used.unboxed() && limit.unboxed()) [[likely]]
      return numbers().admits(share.number(), used.number(), limit.number());
    return admits_slowly(*state_, tally_, share, used, limit);
  }
  void take(Value share) const {
    if (unboxed() && share.unboxed()) [[likely]]
      return numbers().take(share.number());
    take_slowly(*state_, tally_, share);
  }
  void give_back(Value share) const {
    if (unboxed() && share.unboxed()) [[likely]]
      return numbers().give_back(share.number());
    give_back_slowly(*state_, tally_, share);
  }
  /// The tally, where it is ours.
  std::optional<HeldView> own() const { return own_view(*state_, tally_); }

 private:
  static constexpr std::size_t kFields = decltype(HeldObject::base)::kFieldCount;

  bool unboxed() const { return own_ != nullptr && UnboxedFields::fit({own_, kFields}); }
  UnboxedHeld numbers() const { return UnboxedHeld(std::span(own_, kFields)); }
  static std::optional<HeldView> own_view(State& state, PyObject* tally);
  // What is rare stands out of line and takes a copy.
  [[gnu::cold, gnu::noinline]] static bool admits_slowly(State& state, PyObject* tally, Value share,
                                                         Value used, Value limit);
  [[gnu::cold, gnu::noinline]] static void take_slowly(State& state, PyObject* tally, Value share);
  [[gnu::cold, gnu::noinline]] static void give_back_slowly(State& state, PyObject* tally,
                                                            Value share);

  State* state_;
  PyObject* tally_;
  Field* own_ = nullptr;
};

}  // namespace decision_bounds::binding
