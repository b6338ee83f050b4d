"""Compiles the module's stub into the Python code that the module runs once at import.

    generate_surface.py STUB OUTPUT

The stub gives every name, parameter list, annotation and docstring; so what type checkers read and
what the interpreter shows cannot differ. The import runs the stub with these changes:

- the body of each function is a call of the native function behind it,
  `_native_<Class>_<function>`. That name is a constant of the code, in whose place the import puts
  the function: whoever runs the code object runs the function, and whoever is called from there
  finds the module's own globals and builtins;
- docstrings become assignments, since the compiler strips the indentation of docstrings;
- `_native_class` decorates each class but the errors and the protocol: it makes the native class
  of that name with the same attributes;
- a data class has its methods written out: compiling them at the import, as the decorator does,
  would take longer than all the rest.

The output is the marshalled code, as a C++ array to be included, and the magic number of the
interpreter's bytecode that it is for. Its lines are the stub's: a traceback tells those.
"""

from __future__ import annotations

import ast
import dataclasses
import importlib.util
import marshal
import sys
import types
import warnings
from pathlib import Path

# Where a traceback looks for the lines: among the installed files.
FILE = "korvane/engines/decision_bounds.pyi"

# Before all else: what decorates a data class in place of `dataclass`, and what a budget's share
# shows as its give-back, a closure as if `hold` had defined it. The import takes the maker away.
BEFORE = """
import dataclasses

def _record(cls):
    dataclasses.dataclass(init=False, repr=False, eq=False)(cls)
    made = cls.__dataclass_params__
    made.init = made.repr = made.eq = True
    cls.__init__.__annotations__["return"] = None
    return cls

class RunBudget:
    def hold(self, tokens):
        def give_back(reply: PaidReply | None) -> None:
            return _native_give_back(self, reply, tokens)
        return give_back

_give_back_maker = RunBudget.hold
del RunBudget
"""
AFTER = "del dataclasses, _record"

RECORD_METHODS = """
def __init__(self, {parameters}) -> None:
    {assignments}

def __repr__(self):
    return _native_{made}___repr__(self)

def __eq__(self, other):
    if self is other:
        return True
    if other.__class__ is self.__class__:
        return {equal}
    return NotImplemented
"""


def parsed(text: str, place: ast.stmt) -> list[ast.stmt]:
    """Statements that stand, to a traceback, where `place` stands."""
    body = ast.parse(text).body
    for statement in body:
        for node in ast.walk(statement):
            ast.copy_location(node, place)
    return body


def take_docstring(node: ast.Module | ast.ClassDef | ast.FunctionDef) -> str | None:
    """Removes a docstring and returns its exact text."""
    match node.body[:1]:
        case [ast.Expr(ast.Constant(str(text)))]:
            del node.body[0]
            return text
    return None


def native_function(node: ast.FunctionDef, prefix: str = "") -> list[ast.stmt]:
    docstring = take_docstring(node)
    parameters = node.args
    names = [parameter.arg for parameter in parameters.args + parameters.kwonlyargs]
    body = parsed(f"def _():\n return _native_{prefix}{node.name}({', '.join(names)})", node)[0]
    assert isinstance(body, ast.FunctionDef)
    node.body = body.body
    if docstring is None:
        return [node]
    return [node, *parsed(f"{node.name}.__doc__ = {docstring!r}", node)]


def record_methods(made: type) -> str:
    """What the decorator makes of a data class. What makes a default is native: the same, whatever
    the module's names become."""
    fields = dataclasses.fields(made)
    parameters, assignments = [], []
    for field in fields:
        name, default, value = field.name, "", field.name
        if isinstance(field.default_factory, type | types.FunctionType):
            makes = f"_native_make_{field.default_factory.__name__}"
            default = " = _native_absent"
            value = f"{makes}() if {name} is _native_absent else {name}"
        elif isinstance(field.default, types.FunctionType):
            default = f" = {field.default.__name__}"
        elif field.default is not dataclasses.MISSING:
            default = f" = {field.default!r}"
        parameters.append(f"{name}: {field.type}{default}")
        assignments.append(f"self.{name} = {value}")
    return RECORD_METHODS.format(
        parameters=", ".join(parameters),
        assignments="; ".join(assignments),
        made=made.__name__,
        equal=" and ".join(f"self.{f.name} == other.{f.name}" for f in fields if f.compare),
    )


def native_class(node: ast.ClassDef, made: type) -> ast.stmt:
    body: list[ast.stmt] = []
    docstring = take_docstring(node) or made.__doc__  # which the decorator writes where none is
    if docstring is not None:
        body += parsed(f"__doc__ = {docstring!r}", node)
    for statement in node.body:
        if isinstance(statement, ast.FunctionDef):
            body += native_function(statement, f"{node.name}_")
        else:
            body.append(statement)
    decorators = ["_native_class"]
    if dataclasses.is_dataclass(made):
        decorators.append("_record")
        body += parsed(record_methods(made), node)
    node.body = body
    node.decorator_list = [ast.Name(name, ast.Load()) for name in decorators]
    return node


class NamesToConstants(ast.NodeTransformer):
    def visit_Name(self, node: ast.Name) -> ast.expr:
        native = node.id.startswith("_native_")
        return ast.copy_location(ast.Constant(node.id), node) if native else node


def surface(text: str) -> ast.Module:
    module = ast.parse(text)
    # What the stub says to type checkers alone.
    module.body = [
        statement
        for statement in module.body
        if not (isinstance(statement, ast.ImportFrom) and statement.module == "typing_extensions")
    ]
    stub = sys.modules["stub"] = types.ModuleType("stub")
    vars(stub)["disjoint_base"] = lambda cls: cls
    exec(compile(module, "<stub>", "exec", dont_inherit=True), vars(stub))
    # The import sets the module's docstring itself.
    take_docstring(module)
    # The future import has to come first.
    future = module.body.pop(0)
    body = [future, *parsed(BEFORE, future)]
    for statement in module.body:
        if isinstance(statement, ast.FunctionDef):
            body += native_function(statement)
        elif isinstance(statement, ast.ClassDef) and not statement.bases:
            body.append(native_class(statement, getattr(stub, statement.name)))
        else:
            body.append(statement)
    module.body = body + parsed(AFTER, future)
    return ast.fix_missing_locations(NamesToConstants().visit(module))


def main() -> None:
    stub, output = map(Path, sys.argv[1:])
    text = stub.read_text(encoding="utf-8")
    documentation = ast.get_docstring(ast.parse(text), clean=False)
    magic = int.from_bytes(importlib.util.MAGIC_NUMBER, "little")
    with warnings.catch_warnings(action="ignore", category=SyntaxWarning):  # of calls of a text
        code = marshal.dumps(compile(surface(text), FILE, "exec", dont_inherit=True))
    output.write_text(
        f"constexpr long kBytecode = {magic};\n"
        f"constexpr unsigned char kSurface[] = {{{','.join(map(str, code))}}};\n"
        f'constexpr char kDocumentation[] = R"surface({documentation})surface";\n',
        encoding="utf-8",
    )


if __name__ == "__main__":
    main()
