"""Turns the module's stub into the Python text that the module runs once at import.

    generate_surface.py STUB OUTPUT

The stub gives every name, parameter list, annotation and docstring; so what type checkers read and
what the interpreter shows cannot differ. In the text made from it

- the body of each function is a call of the native function behind it,
  `_native_<Class>_<function>`, which the import supplies among the text's builtins: whoever runs
  the code object runs the function;
- docstrings become assignments, since the compiler strips the indentation of docstrings;
- each class but the errors and the protocol has `_native_class` for its metaclass, which makes the
  native class of that name with the same attributes;
- a data class has the attributes that its decorator gives it in place of the decorator, which runs
  here: at the import, compiling the methods that it writes would take longer than all the rest;
- a budget's condition is the module's own.

The text is compiled here and now: the output is the marshalled code, as C++ arrays to be included,
and the magic number of the interpreter's bytecode that it is for.
"""

from __future__ import annotations

import ast
import builtins
import dataclasses
import importlib.util
import itertools
import marshal
import sys
import threading
import types
from pathlib import Path
from typing import Any
from unittest import mock

# What makes the attributes of data classes at the import. The names go when all is made.
TOOLS = """
import dataclasses
import marshal

def _record(kind, **slots):
    made = kind.__new__(kind)
    for name, value in slots.items():
        setattr(made, name, value)
    return made

def _methods(owner, code, values):
    made = {}
    exec(marshal.loads(code), globals(), made)
    methods = made["__create_fn__"](**values)
    for method in methods:
        method.__qualname__ = f"{owner}.{method.__name__}"
    return methods
"""
TOOLS_GONE = "del dataclasses, marshal, _record, _methods"

# What a budget's share shows as its give-back: a closure, as if `hold` had defined it. The import
# runs this in a namespace of its own.
GIVE_BACK = """from __future__ import annotations

class RunBudget:
    def hold(self, tokens):
        native = _native_give_back
        def give_back(reply: PaidReply | None) -> None:
            return native(self, reply, tokens)
        return give_back
"""


def take_docstring(node: ast.Module | ast.ClassDef | ast.FunctionDef) -> str | None:
    """Removes a docstring and returns its exact text."""
    match node.body[:1]:
        case [ast.Expr(ast.Constant(str(text)))]:
            del node.body[0]
            return text
    return None


def assignment(target: str, text: str) -> ast.stmt:
    return ast.parse(f"{target} = {text!r}").body[0]


def native_function(node: ast.FunctionDef, prefix: str) -> list[ast.stmt]:
    docstring = take_docstring(node)
    parameters = node.args
    names = [parameter.arg for parameter in parameters.args + parameters.kwonlyargs]
    call = f"return _native_{prefix}{node.name}({', '.join(names)})"
    node.body = ast.parse(f"def _():\n {call}").body[0].body
    if docstring is None:
        return [node]
    return [node, assignment(f"{node.name}.__doc__", docstring)]


# Stands for the module's own condition where a method makes one.
OWN_CONDITION = object()


class Stub:
    """The stub, run as the Python that it is, and what the decorator made of its data classes."""

    def __init__(self, text: str) -> None:
        self.module = sys.modules["stub"] = types.ModuleType("stub")
        compiled: list[tuple[types.CodeType, dict[str, object], list[str]]] = []

        def compile_methods(text: str, names: dict[str, Any], made: dict[str, Any]) -> None:
            """The decorator's `exec`: keeps what a class's methods are made of."""
            code = compile(text, "<string>", "exec", dont_inherit=True)
            exec(code, names, made)
            create = made["__create_fn__"]

            def created(**values: object) -> tuple[types.FunctionType, ...]:
                methods = create(**values)
                compiled.append((code, values, [method.__name__ for method in methods]))
                return methods

            made["__create_fn__"] = created

        with mock.patch.object(dataclasses, "exec", compile_methods, create=True):
            exec(compile(text, "<stub>", "exec", dont_inherit=True), vars(self.module))
        decorated = filter(dataclasses.is_dataclass, vars(self.module).values())
        self.compiled = dict(zip(decorated, compiled, strict=True))

    def expression(self, value: Any) -> str:
        """What makes a value of the decorator's in the module's text."""
        if value is OWN_CONDITION:
            return "_native_condition"
        match value:
            case None | int() | float() | str():
                return repr(value)
            case tuple():
                return f"({''.join(f'{self.expression(item)}, ' for item in value)})"
            case dict():
                items = [f"{key!r}: {self.expression(item)}" for key, item in value.items()]
                return f"{{{', '.join(items)}}}"
        for space in (self.module, builtins, dataclasses, threading):
            for name, known in vars(space).items():
                if known is value:
                    imported = space in (dataclasses, threading)
                    return f"{space.__name__}.{name}" if imported else name
        slots = [f"{name}={self.expression(getattr(value, name))}" for name in value.__slots__]
        return f"_record({self.expression(type(value))}, {', '.join(slots)})"

    def default(self, data_class: type, field: str) -> ast.expr | None:
        if field not in vars(data_class):
            return None
        return ast.parse(self.expression(vars(data_class)[field]), mode="eval").body

    def added(self, data_class: type) -> list[ast.stmt]:
        """The attributes that come with the decorator, the methods last."""
        code, values, methods = self.compiled[data_class]
        lines = [
            f"{name} = {self.expression(value)}"
            for name, value in itertools.dropwhile(
                lambda item: item[0] != "__dataclass_params__", vars(data_class).items()
            )
            if name not in methods
        ]
        for name, value in values.items():
            if value is threading.Condition:
                values[name] = OWN_CONDITION
        call = f"_methods(__qualname__, {marshal.dumps(code)}, {self.expression(values)})"
        return ast.parse("\n".join([*lines, f"{', '.join(methods)} = {call}"])).body


def native_class(node: ast.ClassDef, stub: Stub) -> ast.ClassDef:
    docstring = take_docstring(node)
    data_class = getattr(stub.module, node.name) if node.decorator_list else None
    if data_class is not None and docstring is None:
        docstring = data_class.__doc__
    body: list[ast.stmt] = [] if docstring is None else [assignment("__doc__", docstring)]
    for statement in node.body:
        if isinstance(statement, ast.FunctionDef):
            body += native_function(statement, f"{node.name}_")
            continue
        if isinstance(statement, ast.AnnAssign) and isinstance(statement.target, ast.Name):
            statement.value = stub.default(data_class, statement.target.id)
        body.append(statement)
    if data_class is not None:
        body += stub.added(data_class)
    node.body = body
    node.decorator_list = []
    node.keywords = [ast.keyword("metaclass", ast.Name("_native_class", ast.Load()))]
    return node


def surface(text: str) -> str:
    stub = Stub(text)
    module = ast.parse(text)
    # The import sets the module's docstring itself.
    take_docstring(module)
    # The future import has to come first.
    body: list[ast.stmt] = [module.body.pop(0), *ast.parse(TOOLS).body]
    for statement in module.body:
        if isinstance(statement, ast.FunctionDef):
            body += native_function(statement, "")
        elif isinstance(statement, ast.ClassDef) and not statement.bases:
            body.append(native_class(statement, stub))
        else:
            body.append(statement)
    module.body = body + ast.parse(TOOLS_GONE).body
    return ast.unparse(ast.fix_missing_locations(module))


def array(name: str, text: str) -> str:
    code = marshal.dumps(compile(text, "<decision_bounds>", "exec", dont_inherit=True))
    return f"constexpr unsigned char {name}[] = {{{','.join(map(str, code))}}};\n"


def main() -> None:
    stub, output = map(Path, sys.argv[1:])
    text = stub.read_text(encoding="utf-8")
    documentation = ast.get_docstring(ast.parse(text), clean=False)
    magic = int.from_bytes(importlib.util.MAGIC_NUMBER, "little")
    output.write_text(
        f"constexpr long kBytecode = {magic};\n"
        + array("kSurface", surface(text))
        + array("kGiveBack", GIVE_BACK)
        + f'constexpr char kDocumentation[] = R"surface({documentation})surface";\n',
        encoding="utf-8",
    )


if __name__ == "__main__":
    main()
