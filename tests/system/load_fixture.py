"""The feeds and configuration of the load tests, and the answers and
overviews kelpd must give for them: both domains, five profiles each; every
profile subscribes a feed of its own and the domain's shared feed, and rss
profile 1 also names an entry that is not in the pool."""
import os

DOMAINS = ("rss", "podcast")
PROFILES = (1, 2, 3, 4, 5)
ITEMS = 8
SHARED = {"rss": 6, "podcast": 16}
DANGLING = 77  # subscribed by rss profile 1, missing from the pool
MAX_UID = ITEMS  # a poll that brings one new item gives it this uid


def feed_ids(domain):
    base = 0 if domain == "rss" else 10
    return [base + k for k in range(1, 7)]


def own_feed(domain, profile):
    return (0 if domain == "rss" else 10) + profile


def subscriptions(domain, profile):
    """Feed ids in configuration order; only those in the pool are listed.
    A profile the configuration lacks (a placeholder) subscribes nothing."""
    if profile not in PROFILES:
        return []
    return [own_feed(domain, profile), SHARED[domain]]


def url(domain, feed):
    return "http://feeds.test/%s%d.xml" % (domain, feed)


def name(domain, feed):
    return "%s feed %d" % (domain.capitalize(), feed)


class Item:
    def __init__(self, domain, feed, i, title=None):
        self.uid = i
        self.title = title or "%s %d item %d" % (domain, feed, i)
        self.body = "Text of %s %d.%d" % (domain, feed, i)
        self.enclosure = "http://feeds.test/m/%s-%d-%d.mp3" % (domain, feed, i) if i % 3 == 0 else ""
        self.image = "http://feeds.test/p/%s-%d-%d.png" % (domain, feed, i) if i % 4 == 1 else ""

    def xml(self):
        parts = ["<item><title>%s</title><guid>%s</guid><description>%s</description>"
                 % (self.title, self.title, self.body)]
        if self.enclosure:
            parts.append('<enclosure url="%s" type="audio/mpeg" length="1" />' % self.enclosure)
        if self.image:
            parts.append('<enclosure url="%s" type="image/png" length="1" />' % self.image)
        parts.append("</item>")
        return "".join(parts)

    def flags(self, api):
        if api < 3:
            return 0
        return (2 if self.enclosure else 0) + (4 if self.image else 0)


def items(domain, feed):
    return [Item(domain, feed, i) for i in range(ITEMS)]


_ITEMS = {}


def cached_items(domain, feed):
    if (domain, feed) not in _ITEMS:
        _ITEMS[(domain, feed)] = items(domain, feed)
    return _ITEMS[(domain, feed)]


def rss(item_list):
    return ('<?xml version="1.0" encoding="utf-8"?>\n<rss version="2.0"><channel><title>Load</title>%s'
            '</channel></rss>\n' % "".join(i.xml() for i in item_list))


def config(domain):
    pool = "".join('<entry id="%d" url="%s" name="%s" poll="600" />' % (f, url(domain, f), name(domain, f))
                   for f in feed_ids(domain))
    profiles = []
    for p in PROFILES:
        subs = "".join('<item entry="%d" />' % f for f in subscriptions(domain, p))
        if domain == "rss" and p == 1:
            subs += '<item entry="%d" />' % DANGLING
        profiles.append('<profile id="%d">%s</profile>' % (p, subs))
    return '<?xml version="1.0"?>\n<pool>%s</pool>\n<profiles>%s</profiles>\n' % (pool, "".join(profiles))


def write_feeds(root):
    for domain in DOMAINS:
        for f in feed_ids(domain):
            with open(os.path.join(root, "%s%d.xml" % (domain, f)), "w") as out:
                out.write(rss(items(domain, f)))


# --- expected texts --------------------------------------------------------

def login_answer(domain, profile, error=""):
    head = "ERROR\tlogin\t%s\t" % error if error else "OK\tlogin\t"
    text = head + "domain:%s\tprofile_id:%d" % (domain, profile)
    for f in subscriptions(domain, profile):
        text += "\tname:%s\tfeed_id:%d" % (name(domain, f), f)
    return text


def accounts_answer(domain, profile):
    return login_answer(domain, profile).replace("OK\tlogin\t", "OK\taccounts\t", 1)


def overview(domain, profile, feed, item_list, read, api):
    """read: the uids shown read."""
    parts = ["overview", "domain:%s" % domain, "profile_id:%d" % profile, "feed_id:%d" % feed,
             "number:%d" % len(item_list), "number_new:%d" % sum(1 for i in item_list if i.uid not in read)]
    for i in item_list:
        parts += ["uid:%d" % i.uid, "state:%d" % ((1 if i.uid in read else 0) + i.flags(api)),
                  "subject:%s" % i.title]
    return "\t".join(parts)


def item_answer(cmd, domain, profile, feed, uid, api):
    """The answer to an item request of a logged-in connection."""
    base = "domain:%s\tprofile_id:%d\tfeed_id:%d\tuid:%d" % (domain, profile, feed, uid)
    if feed == DANGLING and domain == "rss" and profile == 1:
        return "ERROR\t%s\t18:KD_FEED_NOT_FOUND\t%s" % (cmd, base)
    if feed not in subscriptions(domain, profile):
        return "OK\t%s\t%s" % (cmd, base)
    if not 0 <= uid < ITEMS:
        return "ERROR\t%s\t12:KD_UID_NOT_FOUND\t%s" % (cmd, base)
    item = Item(domain, feed, uid)
    if cmd == "body":
        text = "body:" + item.body
        if api >= 3 and item.image:
            text += "\timage:%s\toffset:0" % item.image
    else:
        text = "url:" + (item.enclosure if cmd == "enclosure" else item.image)
    return "OK\t%s\t%s\t%s" % (cmd, base, text)
