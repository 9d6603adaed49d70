#!/usr/bin/env python3
"""Lists the functions declared, not defined, in installed headers that no
installed library exports.

    exports.py AST_JSON INCLUDE_DIR LIB...

AST_JSON is clang's JSON dump of a file that includes every installed
header. Exit status 1, with the missing names, when any is missing."""
import json
import os
import subprocess
import sys

FUNCS = {"FunctionDecl", "CXXMethodDecl", "CXXConstructorDecl", "CXXDestructorDecl", "CXXConversionDecl"}
TEMPLATES = {"FunctionTemplateDecl", "ClassTemplateDecl", "ClassTemplatePartialSpecializationDecl"}


def declared(ast, inc):
    cur = [None]
    found = {}

    def see_loc(loc):
        if isinstance(loc, dict):
            if "file" in loc:
                cur[0] = loc["file"]
            for k in ("spellingLoc", "expansionLoc", "begin", "end"):
                see_loc(loc.get(k))

    def walk(node, in_template):
        if not isinstance(node, dict):
            return
        see_loc(node.get("loc"))
        here = cur[0]
        see_loc(node.get("range"))
        kind = node.get("kind")
        # Declared here, with external linkage, and defined in a library.
        if (kind in FUNCS and not in_template and here and os.path.dirname(os.path.abspath(here)) == inc
                and "mangledName" in node and node.get("storageClass") != "static"
                and not any(node.get(k) for k in ("isImplicit", "inline", "pure", "explicitlyDeleted",
                                                   "explicitlyDefaulted"))
                and not any(c.get("kind") == "CompoundStmt" for c in node.get("inner", []))):
            found[node["mangledName"]] = node.get("name", "?")
        nested = in_template or kind in TEMPLATES
        for c in node.get("inner", []):
            walk(c, nested)

    walk(ast, False)
    return found


def main():
    ast_file, inc, libs = sys.argv[1], os.path.abspath(sys.argv[2]), sys.argv[3:]
    sys.setrecursionlimit(100000)
    with open(ast_file) as f:
        found = declared(json.load(f), inc)
    exported = set()
    for lib in libs:
        out = subprocess.run(["nm", "-D", "--defined-only", lib], capture_output=True, text=True, check=True)
        exported.update(line.split()[-1] for line in out.stdout.splitlines() if line.strip())
    missing = sorted(m for m in found if m not in exported)
    if missing:
        names = subprocess.run(["c++filt"], input="\n".join(missing), capture_output=True, text=True).stdout
        print("exports: declared in an installed header but not exported:")
        print(names, end="")
        return 1
    print("exports: %d functions of the installed headers, all exported" % len(found))
    return 0


if __name__ == "__main__":
    sys.exit(main())
