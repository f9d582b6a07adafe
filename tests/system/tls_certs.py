"""Test certificates for the TLS tests, made with the openssl command at test
time (EC P-256 keys, so making them takes a fraction of a second).

make_certs(directory) writes, each as NAME.crt with its NAME.key:
  ca          the test CA, the only certificate of the test CA bundle
  other_ca    a CA that no bundle trusts
  server      feeds.test and other.test, issued by ca, valid now
  wronghost   wrong.test only, issued by ca
  expired     feeds.test, issued by ca, valid during 2020 only
  selfsigned  feeds.test, signed by its own key
  untrusted   feeds.test, issued by other_ca
  inter       a CA issued by ca ("Kelp Test Intermediate")
  chained     feeds.test, issued by inter
  cross       ca's name and key, certified by other_ca (a cross-signed CA)
  impostor    a self-signed CA named as ca, with a key of its own
and bundle.crt, the CA bundle to put where the client looks for one.
"""
import os
import subprocess
import time

# Where the client reads its CA bundle; tests bind-mount theirs over it.
CA_BUNDLE = "/etc/ssl/certs/ca-certificates.crt"


def trust(ns, directory, content, name="bundle.crt"):
    """Makes `content` the CA bundle of the namespace ns: written to
    directory/name, readable by the fetching child, and bind-mounted over
    CA_BUNDLE."""
    path = os.path.join(str(directory), name)
    with open(path, "wb") as f:
        f.write(content)
    os.chmod(str(directory), 0o755)
    os.chmod(path, 0o644)
    ns.run(["mount", "--bind", path, CA_BUNDLE], check=True)


def system_bundle():
    """The host's own CA bundle as a namespace sees it before any mount
    (empty where the host has none)."""
    try:
        with open(CA_BUNDLE, "rb") as f:
            return f.read()
    except OSError:
        return b""

CA_CONF = """[ca]
default_ca = test_ca
[test_ca]
dir = %(dir)s
database = %(dir)s/index.txt
new_certs_dir = %(dir)s/issued
serial = %(dir)s/serial
default_md = sha256
policy = any
copy_extensions = copy
unique_subject = no
[any]
commonName = supplied
"""


def _openssl(d, *args):
    subprocess.run(["openssl", *args], cwd=d, check=True, capture_output=True)


def _key(d, name):
    _openssl(d, "genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out", name + ".key")


def _ca(d, name, cn):
    _key(d, name)
    _openssl(d, "req", "-x509", "-new", "-key", name + ".key", "-subj", "/CN=" + cn, "-days", "3650",
             "-addext", "basicConstraints=critical,CA:TRUE",
             "-addext", "keyUsage=critical,keyCertSign,cRLSign", "-out", name + ".crt")


def _request(d, name, names):
    _key(d, name)
    _openssl(d, "req", "-new", "-key", name + ".key", "-subj", "/CN=" + names[0],
             "-addext", "subjectAltName=" + ",".join("DNS:" + n for n in names), "-out", name + ".csr")


def _utc(offset_days):
    return time.strftime("%Y%m%d%H%M%SZ", time.gmtime(time.time() + offset_days * 86400))


def _issue(d, name, issuer, names, start=None, end=None):
    """A leaf for names, signed by issuer, valid from start to end (openssl
    ca dates, YYYYMMDDhhmmssZ); by default from yesterday for 30 days."""
    _request(d, name, names)
    ca_dir = os.path.join(d, issuer + "-db")
    if not os.path.isdir(ca_dir):
        os.makedirs(os.path.join(ca_dir, "issued"))
        open(os.path.join(ca_dir, "index.txt"), "w").close()
        with open(os.path.join(ca_dir, "serial"), "w") as f:
            f.write("1000\n")
        with open(os.path.join(ca_dir, "ca.cnf"), "w") as f:
            f.write(CA_CONF % {"dir": ca_dir})
    dates = ["-startdate", start or _utc(-1), "-enddate", end or _utc(30)]
    _openssl(d, "ca", "-batch", "-notext", "-config", os.path.join(ca_dir, "ca.cnf"),
             "-cert", issuer + ".crt", "-keyfile", issuer + ".key", *dates,
             "-in", name + ".csr", "-out", name + ".crt")


def _cross(d, name, key, cn, issuer):
    """A CA certificate for `key` named cn, signed by issuer."""
    ext = os.path.join(d, name + ".ext")
    with open(ext, "w") as f:
        f.write("basicConstraints=critical,CA:TRUE\nkeyUsage=critical,keyCertSign,cRLSign\n")
    _openssl(d, "req", "-new", "-key", key + ".key", "-subj", "/CN=" + cn, "-out", name + ".csr")
    _openssl(d, "x509", "-req", "-in", name + ".csr", "-CA", issuer + ".crt", "-CAkey", issuer + ".key",
             "-set_serial", str(int(time.time() * 1000)), "-days", "3650", "-extfile", ext, "-out", name + ".crt")
    if name != key:
        subprocess.run(["cp", os.path.join(d, key + ".key"), os.path.join(d, name + ".key")], check=True)


def make_certs(d):
    _ca(d, "ca", "Kelp Test CA")
    _ca(d, "other_ca", "Kelp Other CA")
    _issue(d, "server", "ca", ["feeds.test", "other.test"])
    _issue(d, "wronghost", "ca", ["wrong.test"])
    _issue(d, "expired", "ca", ["feeds.test"], "20200101000000Z", "20210101000000Z")
    _issue(d, "untrusted", "other_ca", ["feeds.test"])
    _key(d, "inter")
    _cross(d, "inter", "inter", "Kelp Test Intermediate", "ca")
    _issue(d, "chained", "inter", ["feeds.test"])
    _cross(d, "cross", "ca", "Kelp Test CA", "other_ca")
    _ca(d, "impostor", "Kelp Test CA")
    _key(d, "selfsigned")
    _openssl(d, "req", "-x509", "-new", "-key", "selfsigned.key", "-subj", "/CN=feeds.test", "-days", "30",
             "-addext", "subjectAltName=DNS:feeds.test", "-out", "selfsigned.crt")
    with open(os.path.join(d, "ca.crt")) as src, open(os.path.join(d, "bundle.crt"), "w") as dst:
        dst.write(src.read())
    for name in os.listdir(d):
        os.chmod(os.path.join(d, name), 0o755 if os.path.isdir(os.path.join(d, name)) else 0o644)
    return d
