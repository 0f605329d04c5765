"""Runs a transcript's commands and shows what they print otherwise now: FILE [NAME=VALUE...]"""

import difflib
import os
import shlex
import subprocess
import sys
import tempfile

os.environ.update(setting.split("=", 1) for setting in sys.argv[2:])
expected = open(sys.argv[1], encoding="utf-8").read().splitlines()
script = ["exec 2>&1"]
for line in expected:
    if line.startswith("$ "):
        script += ["echo " + shlex.quote(line), line[2:], "(exit $?) || echo [exit status $?]"]
with tempfile.TemporaryDirectory() as directory:
    done = subprocess.run(["bash", "-c", "\n".join(script)], cwd=directory, timeout=100,
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, encoding="utf-8")
difference = difflib.unified_diff(expected, done.stdout.splitlines(), sys.argv[1], "now", n=1)
sys.exit("\n".join(difference) or 0)
