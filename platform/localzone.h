// localzone: the time zone mktime converts feed dates in, the device's own
// (/etc/localtime). With TZ unset, glibc looks at that file again on every
// mktime call, a stat per dated item; the daemon instead names the file in
// TZ once, and looks at it once per document, loading it again when it has
// changed. A zone the daemon's environment names is left alone.
#pragma once

// At start-up: TZ=":/etc/localtime" when TZ is unset.
void localzone_init(void);

// Before a document's dates are read: when the zone file has changed since
// the last look (another zone linked in, the file rewritten), the C library
// loads it again. Nothing to do when localzone_init left TZ alone.
void localzone_refresh(void);

// Tests: another zone file than /etc/localtime (null: that one again), taken
// by the next localzone_init; and forgetting that TZ was set here, so that
// TZ may be put back as it was.
void localzone_use_file(const char *path);
void localzone_forget(void);
