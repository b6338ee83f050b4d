// The share of an admitted call, and how a bound makes one.
#pragma once

#include "decision_bounds/binding/interpreter/error.h"
#include "decision_bounds/binding/interpreter/view.h"
#include "decision_bounds/binding/lock.h"
#include "decision_bounds/binding/surface/state.h"
#include "decision_bounds/share.h"
#include "stub.h"

namespace decision_bounds::binding {

/// What a share asks of the bound that admitted its call.
struct BoundInterface {
  /// Settles a share that holds `amount`; false, with the error pending, where that failed.
  bool (*settle)(PyObject* bound, Value amount, PyObject* reply);
  /// The callable that such a share shows as its give-back.
  Ref (*make_give_back)(PyObject* bound, Value amount);

  /// Those of `bound`, an instance of a class that admits calls.
  static const BoundInterface& of(PyObject* bound) {
    return *reinterpret_cast<InstanceHead*>(bound)->made->bound;
  }
};

/// The give-back of a share, for one use: a callable of Python's, or, where a bound of ours
/// admitted the call, that bound and the amount held of it, without a function made for the
/// purpose.
struct GiveBack {
  Ref bound;
  Value amount;  // without a bound: the callable
  Ref object;    // what `amount` stands for, if it does

  /// False, with the error pending, where the give-back failed.
  bool operator()(PyObject* reply) &&;
};

struct ShareObject : PlainObject<stub::Share, &State::share> {
  PyObject* bound;  // changes together with the one field, which has what is held of it, if it is

  Field& give_back() { return base.fields[0]; }
  /// Takes the give-back and leaves None; nothing where None was left.
  std::optional<GiveBack> exchange();
  /// Makes the field, which somebody looks at, the callable that it stands for.
  void complete();
  bool construct() {
    bound = nullptr;
    return true;
  }
  int visit_more(visitproc visit, void* arg) {
    Py_VISIT(bound);
    return 0;
  }
  void clear_more() { Py_CLEAR(bound); }
};

/// Keeps the memory of a share of exactly the module's class for the next one.
template <>
void dealloc<ShareObject>(PyObject* object);

/// A share in the making, in the memory of one that went if there is any. The object is there
/// before anything is taken of a bound, so that filling it cannot fail; where host code has put
/// another class in the place of `Share`, that is called instead, and the bound gets back what was
/// taken if that fails.
class NewShare {
 public:
  explicit NewShare(State& state);

  template <class Bound>
  Admission<Ref> owe(Bound& bound, Value amount) {
    if (made_ && state_.share_original() && bound.give_back_original()) [[likely]] {
      auto& share = *reinterpret_cast<ShareObject*>(made_.get());
      share.bound = Py_NewRef(bound.object());
      share.give_back().fill(amount);
      return {Outcome::admitted, std::move(made_)};
    }
    return {Outcome::admitted, replaced(state_, bound, amount)};
  }
  Admission<Ref> none(Outcome outcome) const { return {outcome, Ref()}; }

 private:
  template <class Bound>
  [[gnu::cold, gnu::noinline]] static Ref replaced(State& state, Bound bound, Value amount) {
    Ref made;
    attempt([&] { return made = replacement(state, bound.object(), amount), true; },
            [&] { bound.take_back(amount); });
    return made;
  }
  /// What `Share` makes of the bound's give-back, as both are now.
  [[gnu::cold, gnu::noinline]] static Ref replacement(State& state, PyObject* bound, Value amount);

  State& state_;
  Ref made_;
};

/// An instance of a class that admits calls: its lock, and the shares that it makes.
template <class T>
class BoundView : public T::Stub::template Numbers<View<T>> {
 public:
  using T::Stub::template Numbers<View<T>>::Numbers;
  using Condition = Lock;

  NewShare make_share() const { return NewShare(this->state()); }

  template <class Steps, class Otherwise>
  bool attempt(Steps&& steps, Otherwise&& otherwise) const {
    return binding::attempt(steps, otherwise);
  }

  /// From here on the lock is taken even where Ctrl-C comes while it blocks: a share that settles
  /// is given back already, and nothing would give back what it holds.
  void never_interrupt() { interruptible_ = false; }

  template <class Body>
  auto locked(Body&& body) {
    return with_lock(this->state(), this->get_object(T::Stub::Field::changed), interruptible_,
                     body);
  }

 private:
  bool interruptible_ = true;
};

}  // namespace decision_bounds::binding
