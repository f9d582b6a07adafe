"""pytest glue for the system tests: the `ns` fixture (see kelpns.py)."""
import os
import sys

import pytest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import kelpns  # noqa: E402

SOURCE = os.environ.get("KELP_SOURCE", os.path.abspath(os.path.join(os.path.dirname(__file__), "..", "..")))
BIN = os.environ.get("KELP_BIN", os.path.join(SOURCE, "build", "bin"))
SANITIZE = os.environ.get("KELP_SANITIZE", "OFF").upper() in ("ON", "1", "TRUE", "YES")

# Daemons that fork away from their parent become our children, so that their
# exit status is ours to collect.
kelpns.set_subreaper()


@pytest.fixture
def ns():
    space = kelpns.Namespace(BIN, SANITIZE)
    try:
        yield space
    finally:
        space.close()
    problems = space.problems()
    if problems:
        pytest.fail("problems found while the test ran:\n" + "\n".join(problems), pytrace=False)
    space.remove()


@pytest.fixture
def source_dir():
    return SOURCE
