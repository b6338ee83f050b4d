// The tally of a bound: its type, and how an owner uses one.
#pragma once

#include "decision_bounds/binding/interpreter/view.h"
#include "decision_bounds/binding/surface/state.h"
#include "decision_bounds/held.h"
#include "stub.h"

namespace decision_bounds::binding {

using HeldObject = PlainObject<stub::Held, &State::held>;

/// A tally, or whatever object its owner has in its place.
class HeldView : public stub::Held::Numbers<View<HeldObject>> {
 public:
  explicit HeldView(HeldObject& self) : Numbers(self) {}
  /// An owner's, for as long as this lasts.
  HeldView(State& state, Ref tally) : Numbers(state.held, tally.get()), tally_(std::move(tally)) {}

  bool admits(Value share, Value used, Value limit) {
    return call(
        Operation::admits, [&] { return decision_bounds::admits(*this, share, used, limit); },
        share, used, limit);
  }
  void take(Value share) {
    call(Operation::take, [&] { decision_bounds::take(*this, share); }, share);
  }
  void give_back(Value share) {
    call(Operation::give_back, [&] { decision_bounds::give_back(*this, share); }, share);
  }

  /// Looks again, where `owner` has this tally still or another in its place.
  template <class Owner>
  void renew(const Owner& owner, typename Owner::Field field) {
    if (owner.peek(field).object() == object()) [[likely]]
      return recheck();
    *this = HeldView(owner.state(), owner.get_object(field));
  }

 private:
  Ref tally_;
};

}  // namespace decision_bounds::binding
