// kd_diag: diagnostics. Owns the status dump written on SIGUSR2 and the
// one-shot support-data client that triggers and awaits it.
#pragma once
#include <cstdio>
#include <mxml.h>

struct kd_client;

// One line about the runtime record of an "entry" or "profile" element, to
// the stream if given, else to syslog; other elements produce nothing.
void kd_trace_userdata(int indent, mxml_node_t *element, FILE *stream);

// Recursive listing of a configuration tree to syslog (elements only).
void kd_trace_xml(int indent, mxml_node_t *node);

// Writes the dump file and the syslog listing (the loop clears the flag).
void kd_status_dump(kd_client *clients);

// "kelpd --create-supportdata": 0 when the dump was seen complete, else 1.
int create_supportdata(void);
