// dsldstat: the gateway's internet status. On a host: the internet is usable
// while the kernel has a default route (IPv4 or IPv6), read at each call.
#pragma once

int dsldstat_init(void);
int dsldstat_internet_usable(void);
void dsldstat_exit(void);
