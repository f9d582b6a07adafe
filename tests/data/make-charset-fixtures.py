#!/usr/bin/env python3
"""Writes the feeds of tests/data/charsets/: one RSS feed per legacy charset
(NAME.xml, its declaration naming the charset) and the same feed in UTF-8
(NAME.utf8.xml). test_feed (test_xml_charset.cpp) checks that both give the
same items. Run it from anywhere; it rewrites every file it owns:

    python3 tests/data/make-charset-fixtures.py
"""
import os

HERE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "charsets")

# charset as a feed names it, Python codec, text in characters it holds.
CHARSETS = [
    ("ISO-8859-1", "latin-1", ["Café crème à Noël", "Déjà vu: ½ ¼ ¾ © ® ÿ þ", "Ærø Ångström señor"]),
    ("ISO-8859-2", "iso8859_2", ["Zażółć gęślą jaźń", "Příliš žluťoučký kůň", "Árvíztűrő tükörfúrógép"]),
    ("ISO-8859-15", "iso8859_15", ["Prix: 10 € œuvre", "Šárka Žižka Ÿvette", "cœur Œil façade"]),
    ("windows-1250", "cp1250", ["„Zażółć” – gęślą jaźń", "Příliš žluťoučký kůň €", "Šťastný… nový rok"]),
    ("windows-1251", "cp1251", ["Съешь же ещё этих мягких", "французских булок, да выпей чаю №5", "Ёж и ЯЮЪ € «ёлка»"]),
    ("windows-1252", "cp1252", ["“Smart” quotes – naïve", "Œuvre façade ™ € …", "Ÿes ‰ ‡ † • ž"]),
    ("KOI8-R", "koi8_r", ["Съешь же ещё этих мягких", "ЧАЙ и ЪЫ ЩЬ ЭЮЯ", "французских булок ч ъ"]),
    ("EUC-KR", "euc_kr", ["다람쥐 헌 쳇바퀴에 타고파", "키스의 고유조건은", "입술끼리 만나야 하고"]),
    ("GB2312", "gb2312", ["我能吞下玻璃而不伤身体", "中文新闻 频道", "天气预报：晴"]),
    ("GB18030", "gb18030", ["我能吞下玻璃而不傷身體", "歐元 € 符號 ä ö", "表情 😀 與 𠀀"]),
    ("Shift_JIS", "shift_jis", ["いろはにほへと ちりぬるを", "カタカナ ｶﾀｶﾅ 漢字", "わかよたれそ つねならむ"]),
]


def feed(label, texts):
    """The feed in text form; every item mixes the charset's characters with
    entities, markup, CDATA and enclosures."""
    a, b, c = texts
    items = []
    items.append(
        f"<item><title>{a} &amp; more</title><guid>g1-{label}</guid>"
        f"<pubDate>Tue, 10 Jun 2003 04:00:00 GMT</pubDate>"
        f"<description>&lt;p&gt;{b}&lt;/p&gt;&lt;img src=\"/img/1.png\"&gt; {c} &amp;#8364; "
        f"&amp;eacute; &amp;mdash; &#233; &#8212;&lt;br&gt;end</description>"
        f"<enclosure url=\"/~user/ep1.mp3\" type=\"audio/mpeg\" length=\"1\"/></item>")
    items.append(
        f"<item><title><![CDATA[<b>{b}</b>]]></title><guid>g2</guid>"
        f"<description><![CDATA[<p>{c} &amp; {a}</p><img src=\"http://cdn.example/a\\b.png\">]]></description>"
        f"<media:content url=\"/m/{label}.jpg\" medium=\"image\"/></item>")
    items.append(
        f"<item><title>{c}</title><description>{a}&amp;amp;{b}</description>"
        f"<link rel=\"enclosure\" href=\"/file.ogg\" type=\"audio/ogg\"/></item>")
    return (f"<rss version=\"2.0\" xmlns:media=\"http://search.yahoo.com/mrss/\"><channel>"
            f"<title>{a}</title>\n" + "\n".join(items) + "\n</channel></rss>\n")


def main():
    os.makedirs(HERE, exist_ok=True)
    for label, codec, texts in CHARSETS:
        text = feed(label, texts)
        legacy = f"<?xml version=\"1.0\" encoding=\"{label}\"?>\n" + text
        utf8 = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" + text
        data = legacy.encode(codec)
        assert data.decode(codec) == legacy, label
        with open(os.path.join(HERE, label + ".xml"), "wb") as f:
            f.write(data)
        with open(os.path.join(HERE, label + ".utf8.xml"), "wb") as f:
            f.write(utf8.encode("utf-8"))


if __name__ == "__main__":
    main()
