"""Corpus for bench/peers: real host names shipped in Debian packages, grown
into generated passive-DNS observations with the structure real feeds have.

Real names seed everything: they are searched as they are, their labels are the
vocabulary of generated names, and their registrable domains are the parents of
generated subdomains. Generated names add what a feed has in bulk (common
prefixes, numbered and hashed hosts, deep subdomains) and the rare names an
analyst hunts for (look-alike phishing names, random-letter domains,
underscore and punycode names). Everything is drawn from one seeded generator,
so a size and a seed always give the same corpus.
"""

import glob
import json
import os
import random
import re
import subprocess
import sys
import tempfile

# Debian packages whose files hold real host names, and where they lie inside
# each package. They are downloaded and unpacked, not installed: none of them
# is needed for anything but its data.
PACKAGE_SOURCES = [
    ("publicsuffix", ["usr/share/publicsuffix/public_suffix_list.dat"],
     "the public suffix list (suffixes, many of them registrable names of their own)"),
    ("dns-root-data", ["usr/share/dns/root.hints"], "the root servers' names"),
    ("webext-ublock-origin-firefox",
     ["usr/share/mozilla/extensions/*/*/assets/thirdparties/*/*.txt",
      "usr/share/mozilla/extensions/*/*/assets/ublock/*.txt"],
     "a content blocker's filter lists (ad, tracker and malware hosts)"),
    ("spamassassin", ["usr/share/spamassassin/*.cf"],
     "a mail filter's rules (free-mail domains, URL shorteners, block-list zones)"),
    ("privoxy", ["etc/privoxy/*.action"], "a web proxy's default actions"),
]
METADATA_SOURCE = ("apt-cache dumpavail",
                   "Homepage, Vcs-* and Bugs URLs of every package in the archive")

HOST_RE = re.compile(
    r"(?<![a-z0-9_.-])((?:[a-z0-9](?:[a-z0-9-]{0,61}[a-z0-9])?\.)+([a-z]{2,24}))(?![a-z0-9_-])")
WORD_RE = re.compile(r"[a-z]{3,12}")
# Filter lists also hold random-letter names; their labels would make poor words.
UNPRONOUNCEABLE_RE = re.compile(r"[^aeiouy]{4}|^[^aeiouy]+$|(.)\1\1")
# Nor should generated names be built from the adult-site vocabulary of those lists.
UNWANTED_WORD_RE = re.compile(r"porn|sex|xxx|hentai|fuck|nude|milf|escort|adult")

# Raise when the generator changes, so that a kept corpus is made anew.
CORPUS_VERSION = 2
EPOCH_2019 = 1546300800
SIX_YEARS = 6 * 365 * 86400

COMMON_PREFIXES = (["www"] * 30 + ["mail"] * 12 + ["api"] * 6 + ["smtp"] * 4 + ["m"] * 4 +
                   ["webmail", "autodiscover", "cpanel", "ftp", "ns1", "ns2", "mx", "mx1", "mx2",
                    "vpn", "portal", "login", "dev", "staging", "test", "cdn", "static", "img",
                    "blog", "shop", "app", "admin", "secure", "remote", "owa", "imap", "pop",
                    "docs", "status", "auth", "sso", "git", "jenkins", "grafana", "intranet"])
LOOKALIKE_BRANDS = ["paypa1", "paypai", "amaz0n", "arnazon", "micros0ft", "rnicrosoft", "g00gle",
                    "app1e", "appleid-", "netf1ix", "faceb00k", "linkedln", "dropb0x", "0ffice365",
                    "wellsfarg0", "chase-bank", "bankofamerica-", "coinbase-", "binance-", "steamcornmunity"]
PHISH_WORDS = ["login", "secure", "verify", "account", "update", "support", "billing", "signin",
               "unlock", "confirm", "wallet", "recovery", "service", "alert", "auth"]
PHISH_TLDS = ["com", "net", "info", "xyz", "top", "online", "site", "live", "app", "support"]
DGA_TLDS = ["com", "net", "org", "biz", "info", "xyz", "top", "ru", "cn", "pw", "cc"]
DYN_PARENTS = ["duckdns.org", "ddns.net", "hopto.org", "zapto.org", "no-ip.biz", "dynu.net",
               "serveftp.com", "myftp.org"]
GEN_TLDS = (["com"] * 45 + ["net"] * 8 + ["org"] * 7 + ["de"] * 5 + ["co.uk"] * 4 + ["ru"] * 4 +
            ["io"] * 3 + ["fr", "nl", "jp", "com.br", "it", "pl", "info", "xyz", "au", "ca", "es",
                          "se", "ch", "cn", "in", "eu", "us", "online", "shop", "ac.jp", "gov.uk"])
REGIONS = ["us-east-1", "us-west-2", "eu-west-1", "eu-central-1", "ap-south-1", "ap-northeast-1",
           "sa-east-1", "ca-central-1"]


# ---------------------------------------------------------------- real names

def fetch_packages(cache_dir, log):
    """Downloads the source packages (apt-get download) and unpacks them into
    cache_dir/x; returns {package: [files]}."""
    unpacked = os.path.join(cache_dir, "x")
    os.makedirs(unpacked, exist_ok=True)
    found = {}
    for package, patterns, _ in PACKAGE_SOURCES:
        files = _package_files(unpacked, patterns)
        if not files:
            debs = glob.glob(os.path.join(cache_dir, package + "_*.deb"))
            if not debs:
                log(f"downloading {package} for its host names")
                subprocess.run(["apt-get", "download", package], cwd=cache_dir, check=True,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                debs = glob.glob(os.path.join(cache_dir, package + "_*.deb"))
            subprocess.run(["dpkg-deb", "-x", debs[0], unpacked], check=True)
            files = _package_files(unpacked, patterns)
        found[package] = files
    return found


def _package_files(root, patterns):
    return sorted(f for p in patterns for f in glob.glob(os.path.join(root, p)))


def load_suffixes(psl_path):
    """Public-suffix rules as a set of plain suffixes (wildcards become their
    parent, exceptions are dropped: close enough to find registrable domains)."""
    suffixes = set()
    with open(psl_path, encoding="utf-8") as f:
        for line in f:
            rule = line.strip()
            if not rule or rule.startswith("//") or rule.startswith("!"):
                continue
            rule = rule[2:] if rule.startswith("*.") else rule
            ascii_rule = to_ascii(rule)
            if ascii_rule:
                suffixes.add(ascii_rule)
    return suffixes


def to_ascii(name):
    try:
        return name.encode("idna").decode("ascii").lower()
    except (UnicodeError, ValueError):
        return None


def registrable(name, suffixes):
    """The registrable domain of name (one label under its longest public
    suffix), or None when name is itself a suffix."""
    labels = name.split(".")
    for i in range(1, len(labels)):
        if ".".join(labels[i:]) in suffixes:
            return ".".join(labels[i - 1:])
    return None


def harvest_real_names(cache_dir, log):
    """Returns (names, {source: count}) from the package files and the
    archive's metadata URLs."""
    files = fetch_packages(cache_dir, log)
    suffixes = load_suffixes(files["publicsuffix"][0])
    tlds = {s.rsplit(".", 1)[-1] for s in suffixes}
    names, per_source = set(), {}

    def take(source, text):
        before = len(names)
        for m in HOST_RE.finditer(text.lower()):
            if m.group(2) in tlds and len(m.group(1)) <= 253:
                names.add(m.group(1))
        per_source[source] = per_source.get(source, 0) + len(names) - before

    for package, paths in files.items():
        for path in paths:
            with open(path, encoding="utf-8", errors="replace") as f:
                take(package, f.read())
    # The suffixes themselves are names too (IDN ones in their ASCII form).
    before = len(names)
    names.update(s for s in suffixes if "." in s)
    per_source["publicsuffix"] += len(names) - before
    meta = subprocess.run(["apt-cache", "dumpavail"], capture_output=True, text=True,
                          errors="replace", check=True).stdout
    take(METADATA_SOURCE[0], "\n".join(l for l in meta.splitlines()
                                        if l.startswith(("Homepage:", "Vcs-", "Bugs:"))))
    return names, per_source, suffixes


# ----------------------------------------------------------- generated names

class NameMaker:
    """Draws generated names; each kind is a method, picked by weight."""

    def __init__(self, rng, real_names, suffixes):
        self.rng = rng
        words = set()
        for n in real_names:
            words.update(w for w in WORD_RE.findall(n)
                         if not w.startswith("xn") and not UNPRONOUNCEABLE_RE.search(w)
                         and not UNWANTED_WORD_RE.search(w))
        self.words = sorted(words)
        self.real_parents = sorted({r for r in (registrable(n, suffixes) for n in real_names)
                                    if r and not UNPRONOUNCEABLE_RE.search(r.split(".")[0])
                                    and not UNWANTED_WORD_RE.search(r)})
        self.gen_parents = []
        self.hosting = self.rng.sample(self.real_parents, min(300, len(self.real_parents)))
        self.isps = self.rng.sample(self.real_parents, min(200, len(self.real_parents)))
        self.kinds = [(self.prefixed, 28), (self.domain, 20), (self.numbered, 18),
                      (self.hashed, 14), (self.deep, 12), (self.dga, 3), (self.underscore, 1),
                      (self.dynamic, 1), (self.punycode, 0.4), (self.lookalike, 0.3)]
        self.kind_fns = [k for k, _ in self.kinds]
        self.kind_weights = [w for _, w in self.kinds]

    def word(self):
        return self.rng.choice(self.words)

    def parent(self):
        if self.gen_parents and self.rng.random() < 0.5:
            return self.rng.choice(self.gen_parents)
        return self.rng.choice(self.real_parents)

    def next(self):
        return self.rng.choices(self.kind_fns, self.kind_weights)[0]()

    def domain(self):
        r = self.rng.random()
        label = (self.word() + self.word() if r < 0.45 else
                 self.word() + "-" + self.word() if r < 0.8 else
                 self.word() + str(self.rng.randint(1, 999)) if r < 0.9 else self.word())
        name = label + "." + self.rng.choice(GEN_TLDS)
        self.gen_parents.append(name)
        return name

    def prefixed(self):
        prefix = self.rng.choice(COMMON_PREFIXES)
        if self.rng.random() < 0.1:
            prefix += str(self.rng.randint(1, 40))
        return prefix + "." + self.parent()

    def numbered(self):
        rng, r = self.rng, self.rng.random()
        a, b, c, d = (rng.randint(1, 254) for _ in range(4))
        if r < 0.35:
            return f"host-{a}-{b}-{c}-{d}.{rng.choice(['dyn', 'static', 'dsl', 'cable'])}.{rng.choice(self.isps)}"
        if r < 0.55:
            return f"{d}.{c}.{b}.{a}.{rng.choice(self.isps)}"
        if r < 0.75:
            return f"ip-{a}-{b}-{c}-{d}.{rng.choice(REGIONS)}.compute.{rng.choice(self.hosting)}"
        if r < 0.98:
            role = rng.choice(["srv", "node", "web", "db", "app", "mx", "cache", "edge"])
            return f"{role}{rng.randint(1, 9999)}.{self.parent()}"
        return f"login{rng.randint(1, 99)}.{self.parent()}"

    def hashed(self):
        label = f"{self.rng.getrandbits(80):020x}"[-self.rng.choice([8, 12, 16, 20]):]
        if self.rng.random() < 0.3:
            return f"{label}.{self.rng.choice(REGIONS)}.{self.rng.choice(self.hosting)}"
        return f"{label}.{self.rng.choice(self.hosting)}"

    def deep(self):
        middle = self.word() if self.rng.random() < 0.6 else self.word() + "-" + self.word()
        if self.rng.random() < 0.4:
            middle = self.word() + "." + middle
        return middle + "." + self.parent()

    def dga(self):
        n = self.rng.randint(8, 20)
        label = "".join(self.rng.choice("abcdefghijklmnopqrstuvwxyz") for _ in range(n))
        return label + "." + self.rng.choice(DGA_TLDS)

    def underscore(self):
        r = self.rng.random()
        parent = self.parent()
        if r < 0.4:
            return "_dmarc." + parent
        if r < 0.75:
            return f"{self.rng.choice(['selector1', 'selector2', 'google', 'k1', 's1', 'mail'])}._domainkey.{parent}"
        if r < 0.9:
            return f"_{self.rng.choice(['sip', 'xmpp-server', 'imaps', 'submission', 'autodiscover'])}._tcp.{parent}"
        return "_acme-challenge." + parent

    def dynamic(self):
        return f"{self.word()}{self.rng.randint(0, 99) if self.rng.random() < 0.5 else ''}.{self.rng.choice(DYN_PARENTS)}"

    def punycode(self):
        w = list(self.word())
        w[self.rng.randrange(len(w))] = self.rng.choice("éöüåñçøłşаео")
        label = to_ascii("".join(w))
        return (label or "xn--" + self.word()) + "." + self.rng.choice(GEN_TLDS)

    def lookalike(self):
        rng, brand = self.rng, self.rng.choice(LOOKALIKE_BRANDS).rstrip("-")
        r = rng.random()
        if r < 0.4:
            name = f"{brand}-{rng.choice(PHISH_WORDS)}.{rng.choice(PHISH_TLDS)}"
        elif r < 0.7:
            name = f"{rng.choice(PHISH_WORDS)}-{brand}-{rng.choice(PHISH_WORDS)}.{rng.choice(PHISH_TLDS)}"
        elif r < 0.85:
            name = f"{rng.choice(PHISH_WORDS)}.{brand}.{rng.choice(PHISH_TLDS)}-{rng.choice(PHISH_WORDS)}.{rng.choice(PHISH_TLDS)}"
        else:
            name = f"secure-{rng.choice(PHISH_WORDS)}{rng.randint(1, 99)}.{brand}-{rng.choice(PHISH_WORDS)}.com"
        return name


def valid_name(name):
    return len(name) <= 253 and all(0 < len(label) <= 63 for label in name.split("."))


def make_names(rng, real_names, suffixes, target):
    """target distinct names: all real ones (or a sample when the corpus is
    small) plus generated ones."""
    real = sorted(real_names)
    if len(real) >= target // 4:
        real = rng.sample(real, target // 4)
    names = set(real)
    maker = NameMaker(rng, real, suffixes)
    while len(names) < target:
        name = maker.next()
        if valid_name(name):
            names.add(name)
    return sorted(names)


# -------------------------------------------------------------- observations

class RdataMaker:
    """Record data drawn from pools, so that values repeat as they do in feeds."""

    def __init__(self, rng, names):
        self.rng = rng
        self.names = names
        self.ipv4 = [f"{rng.randint(1, 223)}.{rng.randint(0, 255)}.{rng.randint(0, 255)}.{rng.randint(1, 254)}"
                     for _ in range(200_000)]
        self.ipv6 = ["2001:db8:%x:%x::%x" % (rng.getrandbits(16), rng.getrandbits(16), rng.getrandbits(16))
                     for _ in range(50_000)]
        providers = rng.sample(names, min(500, len(names)))
        self.ns = [f"ns{i}.{p}." for p in providers for i in (1, 2)]
        self.mx = [f"{pref} mx{i}.{p}." for p in providers for i, pref in ((1, 10), (2, 20))]
        self.txt = ([json.dumps(f'"v=spf1 include:_spf.{p} ~all"') for p in providers] +
                    [json.dumps('"v=spf1 -all"'), json.dumps('"v=DMARC1; p=none"')] +
                    [json.dumps(f'"site-verification={rng.getrandbits(128):032x}"') for _ in range(5000)])

    def pick(self, name):
        rng = self.rng
        if name.startswith("_"):
            if "._tcp." in name:
                return "SRV", f'"10 5 {rng.choice([5060, 5269, 993, 587, 443])} {name.split("._tcp.", 1)[1]}."'
            return "TXT", rng.choice(self.txt)
        r = rng.random()
        if r < 0.55:
            return "A", '"' + rng.choice(self.ipv4) + '"'
        if r < 0.67:
            return "AAAA", '"' + rng.choice(self.ipv6) + '"'
        if r < 0.82:
            return "CNAME", '"' + rng.choice(self.names) + '."'
        if r < 0.87:
            return "MX", '"' + rng.choice(self.mx) + '"'
        if r < 0.92:
            return "NS", '"' + rng.choice(self.ns) + '"'
        return "TXT", rng.choice(self.txt)


def write_observations(rng, names, count, path):
    """Every name is observed at least once; the rest of the observations go to
    names drawn with a skew, as a few names get most of a feed's traffic."""
    rdata = RdataMaker(rng, names)
    order = list(names)
    rng.shuffle(order)
    n = len(order)
    with open(path, "w", buffering=1 << 20) as out:
        for i in range(count):
            name = order[i] if i < n else order[int(n * rng.random() ** 3)]
            rtype, data = rdata.pick(name)
            first = EPOCH_2019 + rng.randrange(SIX_YEARS)
            last = first + int(rng.expovariate(1 / (30 * 86400)))
            seen = 1 + int(rng.expovariate(0.1))
            out.write(f'{{"rrname":"{name}.","rrtype":"{rtype}","rdata":{data},'
                      f'"time_first":{first},"time_last":{last},"count":{seen}}}\n')


def build(work_dir, observations, seed, log):
    """Makes work_dir/corpus.jsonl and work_dir/names.txt (the distinct owner
    names, sorted, one per line) unless a corpus of the same size and seed is
    there already. Returns a description of the corpus."""
    stamp_path = os.path.join(work_dir, "corpus.json")
    if os.path.exists(stamp_path):
        with open(stamp_path) as f:
            stamp = json.load(f)
        if (stamp.get("version"), stamp["observations"], stamp["seed"]) == (CORPUS_VERSION, observations, seed):
            log(f"reusing the corpus in {work_dir}")
            return stamp
    cache = os.path.join(work_dir, "packages")
    os.makedirs(cache, exist_ok=True)
    log("harvesting real host names from Debian packages")
    real, per_source, suffixes = harvest_real_names(cache, log)
    rng = random.Random(seed)
    target = max(1000, int(observations * 0.43))  # 0.43: distinct names per observation in feeds we tried
    log(f"generating {target:,} distinct names around {len(real):,} real ones")
    names = make_names(rng, real, suffixes, target)
    with open(os.path.join(work_dir, "names.txt"), "w") as f:
        f.write("\n".join(names) + "\n")
    log(f"writing {observations:,} observations")
    write_observations(rng, names, observations, os.path.join(work_dir, "corpus.jsonl"))
    stamp = {"version": CORPUS_VERSION, "observations": observations, "seed": seed, "names": len(names),
             "real_names": len(real), "real_per_source": per_source}
    with open(stamp_path, "w") as f:
        json.dump(stamp, f, indent=1)
    return stamp


if __name__ == "__main__":
    # Quick look at a small corpus: peers_corpus.py DIR [OBSERVATIONS]
    d = sys.argv[1] if len(sys.argv) > 1 else tempfile.mkdtemp()
    os.makedirs(d, exist_ok=True)
    print(build(d, int(sys.argv[2]) if len(sys.argv) > 2 else 100_000, 13, print))
