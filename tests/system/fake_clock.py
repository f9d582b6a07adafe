"""A wall clock that the test sets: kelpd started with FakeClock.env() reads
time() from a file in the namespace (kelp-test-clock.so, clock_shim.cpp),
so that what it computes from the time (the dump's due) is known exactly.
Timers are not affected: they run on the monotonic clock."""
import os

CLOCK = "/var/tmp/kelp-test-clock"


class FakeClock:
    def __init__(self, ns, now=1700000000):
        self.ns = ns
        self.now = now
        self.set(now)

    def set(self, now):
        """Moves the clock; kelpd's next time() returns `now`. The file is
        replaced whole, so that no read finds it half written."""
        self.now = now
        tmp = self.ns.path(CLOCK + ".new")
        with open(tmp, "w") as f:
            f.write("%d\n" % now)
        os.rename(tmp, self.ns.path(CLOCK))

    def advance(self, seconds):
        self.set(self.now + seconds)

    def env(self):
        # The preloaded library comes before the sanitizer's runtime in
        # kelpd's library list, which the runtime refuses unless told.
        asan = self.ns.env()["ASAN_OPTIONS"] + ":verify_asan_link_order=0"
        return {"LD_PRELOAD": self.ns.bin("kelp-test-clock.so"), "KELP_TEST_CLOCK": CLOCK, "ASAN_OPTIONS": asan}
