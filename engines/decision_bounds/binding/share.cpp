#include "decision_bounds/binding/share.h"

#include "decision_bounds/binding/classes.h"

namespace decision_bounds::binding {

namespace {

constexpr std::size_t kGiveBack = 0;

Receiver<ShareObject> self_of(PyObject* self) { return receiver_cast<ShareObject>(self); }

[[noreturn, gnu::cold, gnu::noinline]] void refuse_missing(const State& state, ShareObject& share) {
  share.base.fields[kGiveBack].store(Value());
  auto* const object = reinterpret_cast<PyObject*>(&share);
  PyErr_Format(PyExc_AttributeError, "'%.100s' object has no attribute '%U'",
               Py_TYPE(object)->tp_name, state.names.give_back_private);
  throw PythonError();
}

/// What the core settles.
class Giver {
 public:
  explicit Giver(const Receiver<ShareObject>& self) : self_(self) {}

  /// Takes what is owed and leaves None; nothing where None was owed.
  std::optional<Owed> exchange() const {
    auto& [state, share] = self_;
    [[maybe_unused]] auto* const object = reinterpret_cast<PyObject*>(&share);
    Field& field = share.base.fields[kGiveBack];
    PyObject* bound = nullptr;
    Value amount;
    Ref amount_object;
    bool settled = false;
    Py_BEGIN_CRITICAL_SECTION(object);
    bound = std::exchange(share.bound, nullptr);
    settled = bound == nullptr && field.is(Py_None);
    if (!settled) amount = field.swap(Value::opaque(Py_None), amount_object);
    Py_END_CRITICAL_SECTION();
    if (settled) return std::nullopt;
    if (!amount.present()) refuse_missing(state, share);
    return Owed{state, Ref::steal_or_null(bound), amount, std::move(amount_object)};
  }

 private:
  Receiver<ShareObject> self_;
};

Ref initialise(PyObject* const* arguments) {
  PyObject* const name = self_of(arguments[0]).state.names.give_back_private;
  check(guarded([&] { return PyObject_SetAttr(arguments[0], name, arguments[1]); }));
  return none();
}

Ref settle(PyObject* const* arguments) {
  return decision_bounds::settle(Giver(self_of(arguments[0])), arguments[1]) ? none() : Ref();
}

Ref enter(PyObject* const* arguments) noexcept { return Ref::borrow(arguments[0]); }

Ref exit(PyObject* const* arguments) {
  const auto self = self_of(arguments[0]);
  if (View(self).own()) [[likely]] {
    return decision_bounds::settle(Giver(self), Py_None) ? none() : Ref();
  }
  call_method(arguments[0], self.state.names.settle, {Value::opaque(Py_None)});
  return none();
}

// `_give_back`, for whoever looks: made into the callable it stands for, once.
PyObject* get_give_back(PyObject* object, void*) {
  return translated([&] {
    auto [state, share] = self_of(object);
    Field& field = share.base.fields[kGiveBack];
    Ref bound;
    Ref kept;
    Value amount;
    Py_BEGIN_CRITICAL_SECTION(object);
    bound = Ref::borrow(share.bound);
    kept = field.reference();
    amount = field.peek();
    Py_END_CRITICAL_SECTION();
    if (bound) {
      const Ref made = state.operations_of(bound.get()).make_give_back(state, bound.get(), amount);
      Ref replaced;
      Py_BEGIN_CRITICAL_SECTION(object);
      if (share.bound == bound.get()) {
        replaced = Ref::steal_or_null(std::exchange(share.bound, nullptr));
        field.store(Value::opaque(made.get()));
      }
      Py_END_CRITICAL_SECTION();
    }
    Ref value = field.boxed();
    if (!value) refuse_missing(state, share);
    return value;
  });
}

int set_give_back(PyObject* object, PyObject* value, void*) {
  auto& share = *reinterpret_cast<ShareObject*>(object);
  Field& field = share.base.fields[kGiveBack];
  PyObject* bound = nullptr;
  bool before = false;
  Py_BEGIN_CRITICAL_SECTION(object);
  bound = std::exchange(share.bound, nullptr);
  before = field.exchange(value == nullptr ? Value() : Value::borrowed(value));
  Py_END_CRITICAL_SECTION();
  const Ref dropped = Ref::steal_or_null(bound);
  if (value == nullptr && !before) {
    PyErr_Format(PyExc_AttributeError, "'%.100s' object has no attribute '_give_back'",
                 Py_TYPE(object)->tp_name);
    return -1;
  }
  return 0;
}

int set_dict_of_share(PyObject* object, PyObject* dict, void*) {
  if (dict == nullptr || !PyDict_Check(dict)) return PyObject_GenericSetDict(object, dict, nullptr);
  try {
    const State* const state = state_of(object);
    if (state == nullptr) return -1;
    Ref rest = Ref::borrow(dict);
    const Ref give_back = take_field(dict, state->names.give_back_private, rest);
    if (give_back) set_give_back(object, give_back.get(), nullptr);
    return PyObject_GenericSetDict(object, rest.get(), nullptr);
  } catch (const PythonError&) {
    return -1;
  }
}

// For copy and pickle: the field besides the instance's dict.
PyObject* share_state(PyObject* object, PyObject*) {
  const Ref give_back = Ref::steal_or_null(get_give_back(object, nullptr));
  if (!give_back) return nullptr;
  const Ref dict = instance_dict(object, reinterpret_cast<ShareObject*>(object)->base.dict);
  return Py_BuildValue("(O{s:O})", dict ? dict.get() : Py_None, "_give_back", give_back.get());
}

Method methods[] = {method<initialise, 2>("__init__"), method<settle, 2>("settle"),
                    method<enter, 1>("__enter__"), method_of_any<exit>("__exit__")};

PyGetSetDef getset[] = {
    {"__dict__", PyObject_GenericGetDict, set_dict_of_share, nullptr, nullptr},
    {"_give_back", get_give_back, set_give_back, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMethodDef plain_methods[] = {
    {"__getstate__", share_state, METH_NOARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_new, reinterpret_cast<void*>(create<ShareObject>)},
    {Py_tp_alloc, reinterpret_cast<void*>(allocate<ShareObject>)},
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

bool Owed::operator()(PyObject* reply) && {
  if (bound) return state.operations_of(bound.get()).settle(state, bound.get(), amount, reply);
  call(amount.boxed().get(), reply);
  return true;
}

// Whether the state is there still: a class that the collector has cleared has let go of its
// module. Only the class itself, no subclass, is deallocated by this very function.
static bool has_state(PyTypeObject* type) {
  return type->tp_dealloc == dealloc<ShareObject> &&
         reinterpret_cast<PyHeapTypeObject*>(type)->ht_module != nullptr;
}

static void give_memory_back(ShareObject& self, PyTypeObject* type) {
  auto* const object = reinterpret_cast<PyObject*>(&self);
  if (!kSerialized || !has_state(type) || !self.base.state->share_freelist.keep(object))
    type->tp_free(object);
  Py_DECREF(type);
}

template <>
void dealloc<ShareObject>(PyObject* object) {
  auto& self = *reinterpret_cast<ShareObject*>(object);
  PyTypeObject* const type = Py_TYPE(object);
  if (type->tp_finalize != nullptr) [[unlikely]] {
    if (has_state(type)) self.base.state->share_freelist.close();
    if (PyObject_CallFinalizerFromDealloc(object) < 0) return;
  }
  PyObject_GC_UnTrack(object);
  if (self.base.weakrefs != nullptr) PyObject_ClearWeakRefs(object);
  // Only a give-back of Python's, or an attribute, can make it a link of a long chain; a bound
  // looks after itself.
  Field& field = self.base.fields[kGiveBack];
  const PyObject* const give_back = field.object();
  if (self.base.dict == nullptr && (give_back == nullptr || give_back == Py_None)) [[likely]] {
    field.store(Value());
    Py_CLEAR(self.bound);
    give_memory_back(self, type);
    return;
  }
  Py_TRASHCAN_BEGIN(object, dealloc<ShareObject>)
    clear<ShareObject>(object);
    give_memory_back(self, type);
  Py_TRASHCAN_END
}

Ref new_share(State& state) {
  PyTypeObject* const type = state.share.type;
  PyObject* const spare = state.share_freelist.take();
  if (spare == nullptr) return Ref::steal_or_null(allocate<ShareObject>(type, 0));
  // What dealloc left is an object but for the references to it and its type: its fields are
  // absent, its state is ours.
  Py_INCREF(type);
  Ref share = Ref::borrow(spare);
  PyObject_GC_Track(share.get());
  return share;
}

void fill_share(PyObject* share, PyObject* bound, Value amount) noexcept {
  auto& self = *reinterpret_cast<ShareObject*>(share);
  self.bound = Py_NewRef(bound);
  self.base.fields[kGiveBack].fill(amount);
}

NewShare::NewShare(State& state) : state_(state) {
  if (!state.makes_own_shares()) return;
  made_ = new_share(state);
  if (!made_) throw PythonError();
}

Ref NewShare::replacement(State& state, PyObject* bound, Value amount) {
  const Ref share = state.global(state.names.share);
  const Ref give_back = state.operations_of(bound).make_give_back(state, bound, amount);
  return call(share.get(), give_back.get());
}

ClassSpec share_class() { return {&State::share, &spec, {}, 0, methods}; }

}  // namespace decision_bounds::binding
