// kelp-web's HTTP side: one libmicrohttpd daemon driven from our own poll
// loop (no threads). It serves the embedded page, takes the page's JSON
// POSTs and streams each session's events as Server-Sent Events.
#pragma once
#include "keeper.h"
#include "session.h"

#include <microhttpd.h>
#include <netinet/in.h>

#include <memory>
#include <string>
#include <vector>

namespace kweb {

struct mhd_stop {
    void operator()(MHD_Daemon *d) const { MHD_stop_daemon(d); }
};

struct web_server {
    // Sessions outlive the daemon: stopping it ends every stream first.
    session_table sessions;
    std::unique_ptr<MHD_Daemon, mhd_stop> mhd;
    kelpd_keeper keeper; // kelpd on demand; its ctl_path is the control socket
    std::vector<std::string> allowed_hosts; // names beside addresses and localhost
    time_t last_keepalive = 0;
};

// Embedded page files (generated at build time from page/).
struct asset {
    const char *path;
    const char *type;
    const unsigned char *data;
    size_t size;
};
extern const asset kAssets[];
extern const size_t kAssetCount;

inline constexpr char kCsp[] =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
    "img-src http: https:; media-src http: https:; base-uri 'none'; form-action 'none'; "
    "frame-ancestors 'none'";

// Starts listening; false (after a message on stderr) when it cannot.
bool server_start(web_server *srv, const sockaddr_in &addr);
uint16_t server_port(web_server *srv);
// Ends every session and stops serving.
void server_stop(web_server *srv);
// For the loop: whether an event stream waits for its session, and the
// stream's TCP socket (-1 when unknown).
bool stream_parked(void *stream);
int stream_socket(void *stream);

// Serves events until stop becomes nonzero.
void server_run(web_server *srv, volatile const int *stop);

// kelpd on demand (ondemand.cpp). Once per turn of the loop: sessions that
// wait for kelpd are connected, kelpd started or the next try awaited.
void ondemand_turn(web_server *srv, int64_t now);
// A session's connection to kelpd has ended: its page is told, the next
// try awaited.
void ondemand_lost(web_server *srv, session *s, int64_t now);
// The configuration changed: a pause before the next start ends now.
void ondemand_kick(web_server *srv, int64_t now);
// Milliseconds until kelpd on demand has something to do, -1 for nothing.
int ondemand_wait_ms(web_server *srv, int64_t now);

} // namespace kweb
