// The tally of a bound: its type, and how an owner uses one.
#pragma once

#include "decision_bounds/binding/view.h"
#include "decision_bounds/held.h"

namespace decision_bounds::binding {

struct HeldObject : NothingMore {
  static constexpr auto kClass = &State::held;
  static constexpr const char* kName = "korvane.engines.decision_bounds._Held";
  Instance<3> base;
};

class HeldView : public View<HeldObject> {
 public:
  using View::View;
  const Value& holders() const { return get(0); }
  const Value& amount() const { return get(1); }
  const Value& unbounded() const { return get(2); }
  void set_holders(Value value) const { set(0, std::move(value)); }
  void set_amount(Value value) const { set(1, std::move(value)); }
  void set_unbounded(Value value) const { set(2, std::move(value)); }
};

/// An owner's tally: native where it is ours and unpatched, else whatever object is in its place.
class Tally {
 public:
  Tally(State& state, Ref tally) : state_(state), object_(std::move(tally)) {
    if (Py_TYPE(object_.get()) != state.held.type) [[unlikely]]
      return;
    own_.emplace(Self<HeldObject>{state, *reinterpret_cast<HeldObject*>(object_.get())});
    if (!own_->own()) [[unlikely]]
      own_.reset();
  }

  bool admits(const Value& share, const Value& used, const Value& limit) const {
    if (own_) return decision_bounds::admits(*own_, share, used, limit);
    return truth(call(state_.names.admits, share.boxed(), used.boxed(), limit.boxed()).get());
  }
  void take(const Value& share) const {
    if (own_) return decision_bounds::take(*own_, share);
    call(state_.names.take, share.boxed());
  }
  void give_back(const Value& share) const {
    if (own_) return decision_bounds::give_back(*own_, share);
    call(state_.names.give_back, share.boxed());
  }
  const HeldView* own() const { return own_ ? &*own_ : nullptr; }

 private:
  template <class... Arguments>
  [[gnu::cold, gnu::noinline]] Ref call(PyObject* name, const Arguments&... arguments) const {
    return call_method(object_.get(), name, {arguments.get()...});
  }

  State& state_;
  Ref object_;
  std::optional<HeldView> own_;
};

}  // namespace decision_bounds::binding
