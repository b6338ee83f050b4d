#include "decision_bounds/binding/share.h"

#include "decision_bounds/binding/classes.h"

namespace decision_bounds::binding {

namespace {

ShareObject& self_of(PyObject* self) { return receiver_cast<ShareObject>(self); }

[[noreturn, gnu::cold, gnu::noinline]] void refuse_missing(ShareObject& share) {
  share.give_back().store(Value());
  auto* const object = reinterpret_cast<PyObject*>(&share);
  PyErr_Format(PyExc_AttributeError, "'%.100s' object has no attribute '%U'",
               Py_TYPE(object)->tp_name, share.base.head.made->field_name(0));
  throw PythonError();
}

}  // namespace

inline std::optional<GiveBack> ShareObject::exchange() {
  [[maybe_unused]] auto* const object = reinterpret_cast<PyObject*>(this);
  Field& field = give_back();
  PyObject* admitted_by = nullptr;
  Value amount;
  Ref amount_object;
  bool settled = false;
  Py_BEGIN_CRITICAL_SECTION(object);
  admitted_by = std::exchange(bound, nullptr);
  settled = admitted_by == nullptr && field.object() == Py_None;
  if (!settled) amount = field.swap(Value::opaque(Py_None), amount_object);
  Py_END_CRITICAL_SECTION();
  if (settled) return std::nullopt;
  if (!amount.present()) refuse_missing(*this);
  return GiveBack{Ref::steal_or_null(admitted_by), amount, std::move(amount_object)};
}

void ShareObject::complete() {
  [[maybe_unused]] auto* const object = reinterpret_cast<PyObject*>(this);
  Field& field = give_back();
  Ref admitted_by;
  Ref amount_object;
  Value amount;
  Py_BEGIN_CRITICAL_SECTION(object);
  admitted_by = Ref::retain(bound);
  amount_object = field.reference();
  amount = field.peek();
  Py_END_CRITICAL_SECTION();
  if (!admitted_by) return;
  const BoundInterface& interface = BoundInterface::of(admitted_by.get());
  const Ref made = interface.make_give_back(admitted_by.get(), amount);
  Ref dropped;
  Py_BEGIN_CRITICAL_SECTION(object);
  if (bound == admitted_by.get()) {
    dropped = Ref::steal_or_null(std::exchange(bound, nullptr));
    field.store(Value::opaque(made.get()));
  }
  Py_END_CRITICAL_SECTION();
}

inline bool GiveBack::operator()(PyObject* reply) && {
  if (bound) return BoundInterface::of(bound.get()).settle(bound.get(), amount, reply);
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
  if (!kSerialized || !has_state(type) || !self.base.head.made->state->share_freelist.keep(object))
    type->tp_free(object);
  Py_DECREF(type);
}

template <>
void dealloc<ShareObject>(PyObject* object) {
  auto& self = *reinterpret_cast<ShareObject*>(object);
  PyTypeObject* const type = Py_TYPE(object);
  if (type->tp_finalize != nullptr) [[unlikely]] {
    if (has_state(type)) self.base.head.made->state->share_freelist.close();
    if (PyObject_CallFinalizerFromDealloc(object) < 0) return;
  }
  PyObject_GC_UnTrack(object);
  if (self.base.head.weakrefs != nullptr) PyObject_ClearWeakRefs(object);
  // Only a give-back of Python's, or an attribute, can make it a link of a long chain; a bound
  // looks after itself.
  Field& field = self.give_back();
  const PyObject* const give_back = field.object();
  if (self.base.head.dict == nullptr && (give_back == nullptr || give_back == Py_None)) [[likely]] {
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

NewShare::NewShare(State& state) : state_(state) {
  if (!state.share_original()) return;
  PyTypeObject* const type = state.share.type;
  if (PyObject* const spare = state.share_freelist.take()) {
    // What dealloc left is an object but for the references to it and its type: its fields are
    // absent, its state is ours.
    Py_INCREF(type);
    made_ = Ref::retain(spare);
    PyObject_GC_Track(spare);
  } else {
    made_ = Ref::steal(allocate<ShareObject>(type, 0));
  }
}

Ref NewShare::replacement(State& state, PyObject* bound, Value amount) {
  const Ref share = state.global(state.names.share);
  const Ref give_back = BoundInterface::of(bound).make_give_back(bound, amount);
  return call(share.get(), give_back.get());
}

Ref stub::Share::init(PyObject* const* arguments) {
  set_fields<ShareObject>(arguments[0], {Ref::retain(arguments[1])});
  return none();
}

Ref stub::Share::settle(PyObject* const* arguments) {
  return decision_bounds::settle(self_of(arguments[0]), arguments[1]) ? none() : Ref();
}

Ref stub::Share::enter(PyObject* const* arguments) { return Ref::retain(arguments[0]); }

Ref stub::Share::exit(PyObject* const* arguments) {
  ShareObject& self = self_of(arguments[0]);
  const auto native = [&] { return decision_bounds::settle(self, Py_None) ? none() : Ref(); };
  return View(self).call(Operation::settle, native, Value::opaque(Py_None)) ? none() : Ref();
}

ClassSpec share_class() { return class_spec<ShareObject>(); }

}  // namespace decision_bounds::binding
