// Texts that are put together of parts, in UTF-8, with lone surrogates as they are.
#pragma once

#include <string>

#include "decision_bounds/binding/interpreter/value.h"

namespace decision_bounds::binding {

void append(std::string& text, PyObject* part);
/// As `repr(value)`.
void append_repr(std::string& text, Value value);
/// As `format(value, ".4f")`, with as many places.
void append_fixed(std::string& text, Value value, int places);
Ref decoded(const std::string& text);

}  // namespace decision_bounds::binding
