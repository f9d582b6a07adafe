// kd_xml: turns a downloaded feed document (RSS 0.9x/1.0/2.0 or Atom) into a
// temporary kd_node holding its items, and reports the feed's title. Owns the
// document preparation (byte-order mark, legacy charsets converted to UTF-8,
// XML declaration from the HTTP charset), the SAX callback that builds one kd_item per "item"/"entry", the
// HTML-to-text stripping of titles and bodies, and publication-date parsing.
#pragma once
#include <cstddef>
#include <cstdint>
#include <mxml.h>

#include "feed/kd_node.h"

// Longest string copied out of a feed document: bounds what one hostile item
// can make the daemon hold.
inline constexpr size_t kdx_copy_limit = 4096;

// State of one parse, handed to the SAX callback.
struct kdx_parse_state {
    const char *url; // feed URL as configured; base for site-relative attachment URLs
    kd_node *feed;   // temporary node receiving the items
    kd_item *last;   // tail of feed->children, null at the start
    int32_t count;   // items appended
    char *title;     // first plain-text channel/feed title (owned), or null
};

// Parses one downloaded document.
//   status:       200 for a complete body, 2 (HTTPCLI_TRUNCATED) for a body cut
//                 short; only 200 makes an XML error fatal, otherwise the items
//                 completed before the error are kept.
//   url:          feed URL, never changed.
//   content_type: the Content-Type header value, or null (no charset); read only.
//   body:         in/out. *body is the NUL-terminated response body, slab
//                 memory owned by the caller. It is modified in place (byte-order
//                 mark removed, declaration inserted) and may be moved by
//                 kd_realloc, or replaced by its conversion to UTF-8 when it is
//                 in a legacy charset; *body always holds the current buffer afterwards,
//                 which the caller releases with kd_free, also when the result
//                 is null.
//   title:        out, may be null. Receives the feed title (caller releases it
//                 with kd_free; null when none) after every parse, also after a
//                 parse error; left untouched when memory ran out before parsing.
// Result: the temporary node (only children is filled, nchildren stays 0),
// released by the caller with kdn_free_feed; null on exhausted memory or on an
// XML error in a complete (200) document.
kd_node *kdx_parse_feed(int status, const char *url, const char *content_type, char **body,
                        char **title);

// Longest charset name that is looked up; longer ones count as unknown.
inline constexpr size_t kdx_charset_name_max = 40;

// The charset a body was read in, as kdx_parse_feed_charset reports it.
struct kdx_charset_info {
    char name[kdx_charset_name_max + 4]; // the charset as named (control bytes as "?", a
                                         // longer name cut with "..."); empty when the
                                         // body was handed to Mini-XML as it came
    bool transcoded; // the body was converted from `name` to UTF-8
    bool unknown;    // `name` cannot be decoded; the body went to Mini-XML as it came
    bool invalid;    // the conversion stopped at an invalid sequence at byte bad_at
    bool cut;        // the converted body outgrew the download bound and was cut
    size_t bad_at;
};

// kdx_parse_feed, also telling what charset the body was read in (info may
// be null). A body cut because its conversion outgrew the download bound is
// parsed as a truncated download; an invalid sequence in its charset is an XML
// error at that point.
kd_node *kdx_parse_feed_charset(int status, const char *url, const char *content_type,
                                char **body, char **title, kdx_charset_info *info);

// Mini-XML's error callback: logs "xml error: %s" (LOG_ERR, verbosity >= 1).
void kdx_xml_error(const char *message);

// SAX callback: retains every node so the tree stays whole; on the close of
// "item"/"entry" builds and appends one kd_item, on the close of a channel or
// feed "title" records the feed title. data is a kdx_parse_state.
void kdx_new_node_from_rss(mxml_node_t *node, mxml_sax_event_t event, void *data);

// Adds an attachment for every element `name` below `element` (having attribute
// `attr`, equal to `value` when given), URL from attribute `urlattr`; image
// types go to item->images, all else to item->enclosures, duplicates skipped.
void kdx_add_attachments(kd_item *item, mxml_node_t *element, const char *name, const char *attr,
                         const char *value, const char *urlattr);

// Rewrites str in place into plain text: entities decoded to single ISO 8859-1
// bytes, tags removed ("<br>" gives a newline), whitespace trimmed. Inline
// images are added to item->images with their offset in the text (item may be
// null: images are then not collected). str must not be null.
void kdx_strip_html_tags(kd_item *item, char *str);

// Reads the next number of one or two decimal digits after skipping non-digits;
// -1 at the end of the text. Advances *cursor past the digits read.
int kdx_read_number(const char **cursor);

// Publication date in the RFC 822 form ("Tue, 10 Jun 2003 04:00:00 GMT") as
// local time; the zone is ignored. -1 when the text cannot be read.
int32_t kdx_parse_date(const char *text);
