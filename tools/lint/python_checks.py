"""Python sources: that they are Python, name nothing that they do not use, and, of what is handed
out, that everything public says what it does and takes."""

import ast

from report import Finding

_HANDED_OUT = "python/"


def python(tree):
    """Every *.py of the tree."""
    for path in tree.with_suffix(".py"):
        try:
            module = ast.parse(tree.text(path) or "", path)
        except SyntaxError as error:
            yield Finding(path, error.lineno or 1, f"no Python: {error.msg}", "put it right",
                          "python")
            continue
        yield from _unused_imports(path, module)
        if path.startswith(_HANDED_OUT):
            yield from _contracts(path, module)


def _unused_imports(path, module):
    used = {node.id for node in ast.walk(module) if isinstance(node, ast.Name)}
    # Names in annotations that are text, and in __all__.
    used |= {word for node in ast.walk(module)
             if isinstance(node, ast.Constant) and isinstance(node.value, str)
             for word in [node.value]}
    for node in ast.walk(module):
        if not isinstance(node, (ast.Import, ast.ImportFrom)):
            continue
        for alias in node.names:
            name = (alias.asname or alias.name).split(".")[0]
            if name == "*":
                yield Finding(path, node.lineno, "import of everything", "name what is used",
                              "python")
            elif name not in used:
                yield Finding(path, node.lineno, f"import of {name}, which is not used",
                              "remove it", "python")


def _contracts(path, module):
    """What is public has a docstring; its functions have types."""
    if not ast.get_docstring(module):
        yield Finding(path, 1, "no docstring", "say what the file is about", "python")
    waiting = [(node, False) for node in module.body]
    while waiting:
        node, inside = waiting.pop()
        if not isinstance(node, (ast.ClassDef, ast.FunctionDef)):
            continue
        if isinstance(node, ast.ClassDef):
            waiting += [(inner, True) for inner in node.body]
        else:
            yield from _types(path, node, inside)
        if not node.name.startswith("_") and not ast.get_docstring(node):
            yield Finding(path, node.lineno, f"{node.name} has no docstring", "say what it does",
                          "python")


def _types(path, function, is_method):
    given = function.args
    arguments = [*given.posonlyargs, *given.args, *given.kwonlyargs]
    static = any(isinstance(one, ast.Name) and one.id == "staticmethod"
                 for one in function.decorator_list)
    if is_method and not static:
        arguments = arguments[1:]
    arguments += [one for one in (given.vararg, given.kwarg) if one]
    untyped = [one.arg for one in arguments if one.annotation is None]
    if untyped or function.returns is None:
        what = ", ".join(untyped) or "its result"
        yield Finding(path, function.lineno, f"{function.name}: no type of {what}", "write it",
                      "python")
