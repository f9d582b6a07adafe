// kd_notify: change notifications pushed to the clients of a profile.
// For now only the hook that the configuration merge calls when a profile's
// element was replaced; the pushes themselves come later.
#include <mxml.h>

#include "client/kd_client.h"
#include "util/kd_log.h"

namespace {

const char *profile_id_text(mxml_node_t *profile)
{
    const char *id = profile ? mxmlElementGetAttr(profile, "id") : nullptr;
    return id ? id : "none";
}

} // namespace

void kd_check_profupdate(mxml_node_t *old_profile, mxml_node_t *new_profile)
{
    KD_LOG(4, LOG_DEBUG, "[kddbg] check profile update: old %s, new %s", profile_id_text(old_profile),
           profile_id_text(new_profile));
}

void kd_send_overview(mxml_node_t *, kd_client *) {}
void kd_entry_updated(mxml_node_t *) {}
