#include "decision_bounds/binding/share.h"

#include "decision_bounds/binding/classes.h"
#include "decision_bounds/binding/daily_spend.h"
#include "decision_bounds/binding/run_budget.h"
#include "decision_bounds/share.h"

namespace decision_bounds::binding {

namespace {

constexpr std::size_t kGiveBack = 0;

class ShareView : public View<ShareObject> {
 public:
  using View::View;

  /// Takes what is owed and leaves None; nothing where None was owed.
  std::optional<Owed> exchange() const {
    Owed owed{state(), Ref(), Value()};
    Value nothing(Ref::borrow(Py_None));
    PyObject* bound = nullptr;
    Py_BEGIN_CRITICAL_SECTION(object());
    bound = std::exchange(instance().bound, nullptr);
    owed.amount = instance().base.fields[kGiveBack].exchange(std::move(nothing));
    Py_END_CRITICAL_SECTION();
    if (bound != nullptr) {
      owed.bound = Ref::steal(bound);
    } else if (!owed.amount.present()) {
      instance().base.fields[kGiveBack].store(Value());
      PyErr_Format(PyExc_AttributeError, "'%.100s' object has no attribute '%U'",
                   Py_TYPE(object())->tp_name, state().names.give_back_private);
      throw PythonError();
    } else if (owed.amount.object() == Py_None) {
      return std::nullopt;
    }
    return owed;
  }
};

ShareView view(PyObject* self) { return ShareView(Self<ShareObject>::of(self)); }

Ref initialise(PyObject* const* arguments) {
  const ShareView self = view(arguments[0]);
  PyObject* const name = self.state().names.give_back_private;
  check(guarded([&] { return PyObject_SetAttr(arguments[0], name, arguments[1]); }));
  return Ref::borrow(Py_None);
}

[[gnu::flatten]] Ref settle(PyObject* const* arguments) {
  decision_bounds::settle(view(arguments[0]), arguments[1]);
  return Ref::borrow(Py_None);
}

Ref enter(PyObject* const* arguments) { return Ref::borrow(arguments[0]); }

[[gnu::flatten]] Ref exit(PyObject* const* arguments) {
  const ShareView self = view(arguments[0]);
  if (self.own()) {
    decision_bounds::settle(self, Py_None);
  } else {
    call_method(arguments[0], self.state().names.settle, {Py_None});
  }
  return Ref::borrow(Py_None);
}

// `_give_back`, for whoever looks: made into the callable it stands for, once.
PyObject* get_give_back(PyObject* object, void*) {
  return translated(nullptr, [&] {
    const ShareView self = view(object);
    ShareObject& share = self.instance();
    Field& field = share.base.fields[kGiveBack];
    if (PyObject* const bound = share.bound) {
      const Ref kept = Ref::borrow(bound);
      const Value amount = field.load();
      Ref made = is_budget(self.state(), bound) ? budget_give_back(self.state(), bound, amount)
                                                : spend_give_back(self.state(), bound, amount);
      Ref replaced;
      Py_BEGIN_CRITICAL_SECTION(object);
      if (share.bound == bound) {
        share.bound = nullptr;
        replaced = Ref::maybe(bound);
        field.store(Value(made));
      }
      Py_END_CRITICAL_SECTION();
    }
    const Value value = field.load();
    if (value.present()) return value.boxed();
    PyErr_Format(PyExc_AttributeError, "'%.100s' object has no attribute '%U'",
                 Py_TYPE(object)->tp_name, self.state().names.give_back_private);
    throw PythonError();
  });
}

int set_give_back(PyObject* object, PyObject* value, void*) {
  auto& share = *reinterpret_cast<ShareObject*>(object);
  Field& field = share.base.fields[kGiveBack];
  PyObject* bound = nullptr;
  Value before;
  Py_BEGIN_CRITICAL_SECTION(object);
  bound = std::exchange(share.bound, nullptr);
  before = field.exchange(value == nullptr ? Value() : Value::of(value));
  Py_END_CRITICAL_SECTION();
  const Ref dropped = Ref::maybe(bound);
  if (value == nullptr && !before.present()) {
    PyErr_Format(PyExc_AttributeError, "'%.100s' object has no attribute '_give_back'",
                 Py_TYPE(object)->tp_name);
    return -1;
  }
  return 0;
}

// For copy and pickle: the field besides the instance's dict.
PyObject* share_state(PyObject* object, PyObject*) {
  const Ref give_back = Ref::maybe(get_give_back(object, nullptr));
  if (!give_back) return nullptr;
  PyObject* const dict = reinterpret_cast<ShareObject*>(object)->base.dict;
  return Py_BuildValue("(O{s:O})", dict != nullptr ? dict : Py_None, "_give_back", give_back.get());
}

Method methods[] = {method<initialise, 2>("__init__"), method<settle, 2>("settle"),
                    method<enter, 1>("__enter__"), method_of_any<exit>("__exit__")};

PyGetSetDef getset[] = {
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {"_give_back", get_give_back, set_give_back, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMethodDef plain_methods[] = {
    {"__getstate__", share_state, METH_NOARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_new, reinterpret_cast<void*>(create<ShareObject>)},
    {Py_tp_traverse, reinterpret_cast<void*>(traverse<ShareObject>)},
    {Py_tp_clear, reinterpret_cast<void*>(clear<ShareObject>)},
    {Py_tp_dealloc, reinterpret_cast<void*>(dealloc<ShareObject>)},
    {Py_tp_members, TypeSlots<ShareObject>::members},
    {Py_tp_getset, getset},
    {Py_tp_methods, plain_methods},
    {0, nullptr},
};

PyType_Spec spec = {ShareObject::kName, sizeof(ShareObject), 0,
                    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_BASETYPE, slots};

}  // namespace

void Owed::operator()(PyObject* reply) && {
  if (!bound) {
    call(amount.boxed().get(), reply);
  } else if (is_budget(state, bound.get())) {
    settle_budget_share(state, bound.get(), amount, reply);
  } else {
    settle_spend_share(state, bound.get(), amount, reply);
  }
}

static void take_apart(ShareObject& self, PyTypeObject* type, State& state) {
  auto* const object = reinterpret_cast<PyObject*>(&self);
  if (self.base.weakrefs != nullptr) PyObject_ClearWeakRefs(object);
  clear<ShareObject>(object);
  SpareShares& spare = state.spare_shares;
  if (Interpreter::kSerialized && type == state.share.type && spare.count < SpareShares::kMost) {
    spare.objects[spare.count++] = object;
  } else {
    type->tp_free(object);
  }
  Py_DECREF(type);
}

template <>
void dealloc<ShareObject>(PyObject* object) {
  auto& self = *reinterpret_cast<ShareObject*>(object);
  PyTypeObject* const type = Py_TYPE(object);
  State& state = *self.base.state;
  if (type->tp_finalize != nullptr && PyObject_CallFinalizerFromDealloc(object) < 0) return;
  PyObject_GC_UnTrack(object);
  // Only a give-back of Python's, or an attribute, can make it a link of a long chain; a bound
  // looks after itself.
  if (self.base.dict == nullptr && self.base.fields[kGiveBack].object() == nullptr) [[likely]] {
    take_apart(self, type, state);
    return;
  }
  Py_TRASHCAN_BEGIN(object, dealloc<ShareObject>) take_apart(self, type, state);
  Py_TRASHCAN_END
}

NewShare::NewShare(State& state) : class_(state.global(state.names.share)) {
  PyTypeObject* const type = state.share.type;
  if (class_.get() != reinterpret_cast<PyObject*>(type) || !state.share.unpatched()) return;
  SpareShares& spare = state.spare_shares;
  if (spare.count == 0) {
    made_ = Ref::steal(create<ShareObject>(type, nullptr, nullptr));
    return;
  }
  // What dealloc left is an object in all but its header: its fields are absent, its state is ours.
  made_ = Ref::steal(PyObject_Init(spare.objects[--spare.count], type));
  PyObject_GC_Track(made_.get());
}

void NewShare::fill(PyObject* bound, const Value& amount) noexcept {
  auto& share = *reinterpret_cast<ShareObject*>(made_.get());
  share.bound = Py_NewRef(bound);
  share.base.fields[kGiveBack].store(amount);
}

ClassSpec share_class() { return {&State::share, &spec, {}, 0, methods}; }

}  // namespace decision_bounds::binding
