"""Turns the module's stub into the Python text that the module runs once at import.

    generate_surface.py STUB OUTPUT

The stub gives every name, parameter list, annotation and docstring; so what type checkers read and
what the interpreter shows cannot differ. In the text made from it

- the body of each function is a call of the native function behind it,
  `_native_<Class>_<function>`, which the import supplies among the text's builtins: whoever runs
  the code object runs the function;
- docstrings become assignments, since the compiler strips the indentation of docstrings;
- each class but the errors and the protocol passes through `_native_class`, which makes the native
  class of that name with the same attributes;
- a budget's condition is the module's own.

The text is compiled here and now: the output is the marshalled code, as C++ arrays to be included,
and the magic number of the interpreter's bytecode that it is for.
"""

from __future__ import annotations

import ast
import importlib.util
import marshal
import sys
from pathlib import Path

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


def data_class_text(node: ast.ClassDef) -> str:
    """The docstring that the decorator would give, which takes it longer than all the rest."""
    text = ast.unparse
    fields = [
        f"{text(field.target)}: '{text(field.annotation)}' = {text(field.value)}"
        for field in node.body
        if isinstance(field, ast.AnnAssign) and field.value is not None
    ]
    return f"{node.name}({', '.join(fields)})"


def native_class(node: ast.ClassDef) -> ast.ClassDef:
    docstring = take_docstring(node)
    if docstring is None and node.decorator_list:
        docstring = data_class_text(node)
    body: list[ast.stmt] = [] if docstring is None else [assignment("__doc__", docstring)]
    for statement in node.body:
        if isinstance(statement, ast.FunctionDef):
            body += native_function(statement, f"{node.name}_")
        else:
            body.append(statement)
    node.body = body
    node.decorator_list.insert(0, ast.Name("_native_class", ast.Load()))
    return node


class OwnCondition(ast.NodeTransformer):
    """Makes the constructor of a data class make the module's own conditions."""

    def visit_keyword(self, node: ast.keyword) -> ast.keyword:
        if node.arg == "default_factory" and ast.unparse(node.value) == "threading.Condition":
            node.value = ast.Name("_native_condition", ast.Load())
        return node


# The field itself names the type that its annotation names.
SHOWN_FACTORY = "RunBudget.__dataclass_fields__['_changed'].default_factory = threading.Condition"


def surface(stub: str) -> str:
    module = ast.parse(stub)
    docstring = take_docstring(module)
    assert docstring is not None
    body: list[ast.stmt] = []
    for statement in module.body:
        if isinstance(statement, ast.FunctionDef):
            body += native_function(statement, "")
        elif isinstance(statement, ast.ClassDef) and not statement.bases:
            body.append(OwnCondition().visit(native_class(statement)))
            if statement.name == "RunBudget":
                body += ast.parse(SHOWN_FACTORY).body
        else:
            body.append(statement)
    # The future import has to come first; the module's docstring is set by the import itself.
    module.body = body
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
