"""many COUNT TIMEOUT-MS: posts so many events, tells which were not taken, and the longest post."""
import sys
import time

import kivevent

count, timeout, longest = int(sys.argv[1]), int(sys.argv[2]) / 1000, 0.0
with kivevent.Queue() as queue:
    for i in range(count):
        if i % (count // 20) == 0:
            print("at", i, flush=True)
        start = time.monotonic()
        try:
            queue.post("usage.app", {"number": i}, timeout=timeout, kernel_time=1000 + i)
        except kivevent.Error as error:
            print("not", i, error)
            longest = max(longest, time.monotonic() - start)
            time.sleep(0.01)
        else:
            longest = max(longest, time.monotonic() - start)
print("longest", longest * 1000)
