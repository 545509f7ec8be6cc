# Waiting for what is promised.

import time

# Generous: machines are shared, and the sanitizers are slow.
PATIENCE = 30  # seconds


def wait_until(condition, patience=PATIENCE):
    """Waits until `condition` is true and returns its result. Fails the test when it stays false."""
    deadline = time.monotonic() + patience
    while not (result := condition()):
        assert time.monotonic() < deadline, f"still not true after {patience} s"
        time.sleep(0.005)
    return result
