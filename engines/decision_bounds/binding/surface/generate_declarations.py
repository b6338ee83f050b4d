"""Tells the native code what the module's stub says.

    generate_declarations.py STUB OUTPUT

For each native class: its fields and its operations, as enumerations and as texts; which fields are
numbers, how they are read and set, and which its `__repr__` shows; and the native function of each
operation, declared, with the table that makes methods of them. A unit that defines a function that
the stub does not have fails to compile. One that leaves one out fails to link, since what is
declared here is to be found in the module.
"""

from __future__ import annotations

import ast
import dataclasses
import sys
import types
from collections.abc import Iterable
from pathlib import Path

from generate_surface import load, native_classes

# What the generated code calls besides: a budget's share's give-back, and what makes defaults.
BESIDE = """
def give_back(self, reply, tokens): ...
def make__Held(): ...
def make_Condition(): ...
"""

# What a field is annotated with that holds a number.
NUMBERS = ("int", "float", "int | None", "float | None")

HEADER = """\
// What the stub says of the module's classes and functions.
#pragma once

#include <array>
#include <span>

#include "decision_bounds/binding/surface/surface.h"

namespace decision_bounds::binding::stub {{

{structs}
}}  // namespace decision_bounds::binding::stub
"""
STRUCT = """\
struct [[gnu::visibility("hidden")]] {name} {{
  enum class Field : std::size_t {{ {field_names} }};
  enum class Operation : std::size_t {{ {operation_names} }};
  static constexpr const char* kName = "korvane.engines.decision_bounds.{python_name}";
  static constexpr std::array<const char*, {fields}> kFields{{{field_texts}}};
  static constexpr std::array<const char*, {operations}> kOperations{{{operation_texts}}};
  static constexpr std::array<Field, {shown}> kShown{{{shown_names}}};
  static constexpr std::array<Field, {numbers}> kNumbers{{{number_names}}};

  template <class Base>
  struct Numbers : Base {{
    using Base::Base;
    using typename Base::Number;
{accessors}
  }};

{natives}

  template <class Unit = {name}>
  static std::span<Method> methods() {{
    static Method made[] = {{{methods}}};
    return made;
  }}
}};
"""


def method(function: ast.FunctionDef) -> str:
    native = f"Unit::{function.name.strip('_')}"
    if function.args.vararg:
        return f'method_of_any<{native}>("{function.name}")'
    positional = len(function.args.args)
    parameters = positional + len(function.args.kwonlyargs)
    return f'method<{native}, {parameters}, {positional}>("{function.name}")'


def accessors(field: str, annotation: str) -> str:
    name = field.strip("_")
    get = "get_or_none" if annotation.endswith("| None") else "get"
    return f"""\
    auto {name}() const {{ return this->{get}(Field::{name}); }}
    void set_{name}(Number value) {{ this->set(Field::{name}, value); }}"""


FUNCTIONS = """\
struct [[gnu::visibility("hidden")]] Functions {{
{natives}

  template <class Unit = Functions>
  static std::span<Method> methods() {{
    static Method made[] = {{{methods}}};
    return made;
  }}
}};
"""


def struct(
    name: str, functions: list[ast.FunctionDef], fields: dict[str, str], shown: list[str]
) -> str:
    def native(names: Iterable[str], before: str = "") -> str:
        return ", ".join(before + name.strip("_") for name in names)

    def texts(names: Iterable[str]) -> str:
        return ", ".join(f'"{name}"' for name in names)

    operations = [function.name for function in functions]
    numbers = {field: text for field, text in fields.items() if text in NUMBERS}
    return STRUCT.format(
        name=name.strip("_"),
        python_name=name,
        fields=len(fields),
        field_names=native(fields),
        field_texts=texts(fields),
        operations=len(operations),
        operation_names=native(operations),
        operation_texts=texts(operations),
        shown=len(shown),
        shown_names=native(shown, "Field::"),
        numbers=len(numbers),
        number_names=native(numbers, "Field::"),
        accessors="\n".join(accessors(*number) for number in numbers.items()),
        natives="\n".join(
            f"  static Ref {native([name])}(PyObject* const* arguments);" for name in operations
        ),
        methods=", ".join(map(method, functions)),
    )


def functions_of(node: ast.Module | ast.ClassDef) -> list[ast.FunctionDef]:
    return [each for each in node.body if isinstance(each, ast.FunctionDef)]


def native_class(node: ast.ClassDef, made: type) -> str:
    functions = functions_of(node)
    fields = {
        each.target.id: ast.unparse(each.annotation)
        for each in node.body
        if isinstance(each, ast.AnnAssign) and isinstance(each.target, ast.Name)
    }
    shown = []
    if dataclasses.is_dataclass(made):
        shown = [field.name for field in dataclasses.fields(made) if field.repr]
        functions += functions_of(ast.parse("def __repr__(self): ..."))
    return struct(node.name, functions, fields, shown)


def functions(written: list[ast.FunctionDef]) -> str:
    written += functions_of(ast.parse(BESIDE))
    natives, methods = [], []
    for each in written:
        native = each.name.strip("_").replace("__", "_")
        parameters = len(each.args.args) + len(each.args.kwonlyargs)
        natives.append(f"  static Ref {native}(State& state, PyObject* const* arguments);")
        methods.append(f'function<Unit::{native}, {parameters}>("{each.name}")')
    return FUNCTIONS.format(natives="\n".join(natives), methods=", ".join(methods))


def declarations(module: ast.Module, stub: types.ModuleType) -> str:
    structs = [native_class(node, getattr(stub, node.name)) for node in native_classes(module)]
    structs.append(functions(functions_of(module)))
    return HEADER.format(structs="\n".join(structs))


def main() -> None:
    stub, output = map(Path, sys.argv[1:])
    output.write_text(declarations(*load(stub.read_text(encoding="utf-8"))), encoding="utf-8")


if __name__ == "__main__":
    main()
