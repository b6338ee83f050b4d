// What the import makes of each unit of the binding.
#pragma once

#include <span>

#include "decision_bounds/binding/interpreter/surface.h"

namespace decision_bounds::binding {

ClassSpec share_class();
ClassSpec held_class();
ClassSpec charges_class();
ClassSpec rates_class();
ClassSpec budget_class();
ClassSpec spend_class();

/// The module's functions: `never`, `_nothing`, `_wait`, and the give-back of a budget's share.
std::span<Method> functions();
std::span<PyMethodDef> factories();
Method& budget_give_back();

}  // namespace decision_bounds::binding
