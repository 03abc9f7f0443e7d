#!/usr/bin/python3
"""The peer's side of linux_peer_bench: dogtail's search by name, timed in
this one process so that neither Python's start nor dogtail's import counts.

One request a line on standard input, one answer a line on standard output:
  {"op": "find", "app": A, "name": N, "role": R, "count": K}
      K searches of app.child(name=N, roleName=R), one after another;
      answers {"medianMs", "ms": [...], "found": the name found}
  {"op": "count", "app": A}
      answers {"nodes": the elements of the application's tree, itself included}
Failures answer {"error": text}. Answers start with "result " so that
anything the library prints on standard output is told apart."""
import json
import statistics
import sys
import time

from dogtail import tree
from dogtail.config import config

# The timing is of the search alone: no debug log written beside it.
config.logDebugToFile = False
config.logDebugToStdOut = False

apps = {}


def application(name):
    if name not in apps:
        apps[name] = tree.root.application(name)
    return apps[name]


def find(request):
    app = application(request["app"])
    times = []
    found = None
    for _ in range(int(request.get("count", 10))):
        start = time.perf_counter()
        node = app.child(name=request["name"], roleName=request["role"], retry=False)
        times.append((time.perf_counter() - start) * 1000)
        found = node.name
    return {"medianMs": statistics.median(times), "ms": times, "found": found}


def count(request):
    return {"nodes": 1 + len(application(request["app"]).findChildren(lambda node: True))}


def main():
    operations = {"find": find, "count": count}
    for line in sys.stdin:
        try:
            request = json.loads(line)
            answer = operations[request["op"]](request)
        except Exception as error:  # the bench shows what went wrong and goes on
            answer = {"error": f"{type(error).__name__}: {error}"}
        sys.stdout.write("result " + json.dumps(answer) + "\n")
        sys.stdout.flush()


if __name__ == "__main__":
    main()
