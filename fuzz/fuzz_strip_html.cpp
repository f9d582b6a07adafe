// fuzz_strip_html: a feed's title or description text through the HTML
// stripping, with an item collecting the inline images.
#include <cstring>

#include "feed/kd_node.h"
#include "feed/kd_xml.h"
#include "fuzz/fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    size_t live = slab_live_count();
    auto *text = static_cast<char *>(kd_malloc(size + 1));
    FUZZ_CHECK(text != nullptr);
    memcpy(text, data, size);
    text[size] = '\0';
    size_t before = strlen(text);
    auto *item = static_cast<kd_item *>(kd_calloc(1, sizeof(kd_item)));
    FUZZ_CHECK(item != nullptr);
    kdx_strip_html_tags(item, text);
    // Stripping only ever shortens the text. An image offset counts the bytes
    // written before its tag, so trailing white space trimmed afterwards may
    // leave it past the end, but never past the original text.
    FUZZ_CHECK(strlen(text) <= before);
    for (const kd_attachment *a = item->images; a; a = a->next) {
        FUZZ_CHECK(a->offset <= before);
        FUZZ_CHECK(a->url != nullptr && a->url[0] != '\0' && a->type == nullptr);
    }
    kdn_free_item(item);
    kd_free(text);
    fuzz_expect_no_leak(live);
    return 0;
}
