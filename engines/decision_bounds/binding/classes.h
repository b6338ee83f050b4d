// What the import makes of each unit of the binding.
#pragma once

#include "decision_bounds/binding/surface/surface.h"

namespace decision_bounds::binding {

ClassSpec share_class();
ClassSpec held_class();
ClassSpec charges_class();
ClassSpec rates_class();
ClassSpec budget_class();
ClassSpec spend_class();

}  // namespace decision_bounds::binding
