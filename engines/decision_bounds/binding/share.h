// The share of an admitted call, and how a bound makes one.
#pragma once

#include "decision_bounds/binding/interpreter/view.h"
#include "decision_bounds/share.h"

namespace decision_bounds::binding {

/// What a share owes: a give-back of Python's, or, where a bound of ours admitted the call, that
/// bound and the amount held of it, without a function made for the purpose.
struct Owed {
  State& state;
  Ref bound;
  Value amount;  // without a bound: the give-back itself
  Ref object;    // what `amount` stands for, if it does

  /// False, with the error pending, where the give-back failed.
  bool operator()(PyObject* reply) &&;
};

struct ShareObject {
  static constexpr auto kClass = &State::share;
  static constexpr const char* kName = "korvane.engines.decision_bounds.Share";
  Instance<1> base;
  PyObject* bound;  // changes together with the one field: see exchange()

  bool construct() {
    bound = nullptr;
    return true;
  }
  int visit_more(visitproc visit, void* arg) {
    Py_VISIT(bound);
    return 0;
  }
  void clear_more() { Py_CLEAR(bound); }
  void destroy() {}
};

/// Keeps the memory of a share of exactly the module's class for the next one.
template <>
void dealloc<ShareObject>(PyObject* object);

/// A share that owes nothing yet, in the memory of one that went if there is any; none, with the
/// error pending, where memory fails.
Ref new_share(State& state);
/// Makes a new share owe `amount` of `bound`.
void fill_share(PyObject* share, PyObject* bound, Value amount) noexcept;

/// A share in the making. The object is there before anything is taken of a bound, so that filling
/// it cannot fail; where host code has put another class in the place of `Share`, that is called
/// instead, and the bound gets back what was taken if that fails.
class NewShare {
 public:
  explicit NewShare(State& state);

  template <class Bound>
  Admission<Ref> owe(Bound& bound, Value amount) {
    if (made_ && state_.makes_own_shares() && bound.own_give_back()) [[likely]] {
      fill_share(made_.get(), bound.object(), amount);
      return {Outcome::admitted, std::move(made_)};
    }
    const KeptError making = KeptError::attempt([&] {
      made_ = replacement(state_, bound.object(), amount);
      return true;
    });
    if (making.failed()) {
      bound.take_back(amount);
      making.rethrow();
    }
    return {Outcome::admitted, std::move(made_)};
  }
  Admission<Ref> none(Outcome outcome) const { return {outcome, Ref()}; }

 private:
  /// What `Share` makes of the bound's give-back, as both are now.
  [[gnu::cold, gnu::noinline]] static Ref replacement(State& state, PyObject* bound, Value amount);

  State& state_;
  Ref made_;
};

}  // namespace decision_bounds::binding
