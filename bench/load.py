# SPDX-License-Identifier: GPL-3.0-only
"""Runs the load generators."""

import contextlib
import json
import subprocess
import sys


def run_load(program, *arguments, env=None):
    """What the load generator prints, a JSON object."""
    with started_load(program, *arguments, env=env) as finish:
        return finish()


@contextlib.contextmanager
def started_load(program, *arguments, env=None):
    """Runs a load generator beside the block, which gets a function that waits for what it prints."""
    with subprocess.Popen([str(each) for each in (program, *arguments)], env=env, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as process:
        def finish():
            output, errors = process.communicate()
            if process.returncode:
                sys.exit(f"{program.name} {arguments[0]} failed: {errors}")
            return json.loads(output)
        try:
            yield finish
        except BaseException:
            process.kill()
            raise
