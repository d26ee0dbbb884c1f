#!/usr/bin/python3
"""The agent's SELinux policy through Android's own base policy, release by release.

For each release under base-policy/ (android-11 ... android-15): the files of
android/sepolicy/ join the base's public/ and private/ as a system_ext private
folder, in the order that release's build concatenates them, through m4 with
the build's defines, then `checkpolicy -M -c 30`, which enforces every
neverallow. The contexts files are then checked against the compiled policy
with setools, and each thing the agent touches (the files and devices, the
properties it reads and sets) is labelled through the base's contexts and
the project's and looked up in the compiled rules.

Every failure names the release, the project's file and line, and the base
rule it breaks. Exit status 0 when every release passes.

    policy_check.py [--cil] [--jobs N] [--keep DIR] [--policy DIR] [--variant V] [RELEASE...]

--cil also runs the platform's CIL route (checkpolicy -C, the release's
technical_debt.cil, secilc); it takes twice as long as the rest together.
"""
import argparse
import concurrent.futures
import os
import re
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
BASE = os.path.join(HERE, "base-policy")
PROJECT = os.path.join(ROOT, "android", "sepolicy")

# The order of the files before Android 14 (Android 11's Android.mk, 12's and
# 13's build lists); a release whose build/soong/policy.go has its own
# policyConfOrder uses that one.
CLASSIC_ORDER = [
    "security_classes", "initial_sids", "access_vectors", "global_macros", "neverallow_macros",
    "mls_macros", "mls_decl", "mls", "policy_capabilities", "te_macros", "attributes",
    "ioctl_defines", "ioctl_macros", "*.te", "roles_decl", "roles", "users",
    "initial_sid_contexts", "fs_use", "genfs_contexts", "port_contexts",
]

# The defines of a user build of a full-Treble device (policy.go's
# transformPolicyToConf); target_board_api_level is Android 15's value for the
# platform's own policy.
M4_DEFINES = {
    "mls_num_sens": "1", "mls_num_cats": "1024", "target_arch": "arm64",
    "target_with_asan": "false", "target_with_dexpreopt": "false",
    "target_with_native_coverage": "false", "target_build_variant": "user",
    "target_full_treble": "true", "target_compatible_property": "true",
    "target_treble_sysprop_neverallow": "true", "target_enforce_sysprop_owner": "true",
    "target_exclude_build_test": "false",
    "target_requires_insecure_execmem_for_swiftshader": "false",
    "target_enforce_debugfs_restriction": "true", "target_recovery": "false",
    "target_board_api_level": "1000000",
}

DOMAIN = "ovta_amt"
# The properties the agent touches: (name, what it does). Each must resolve,
# through the base's property_contexts and the project's, to a label the
# domain may read or set.
PROPERTIES = [
    ("ro.build.display.tq.id", "read"),
    ("ro.board.platform", "read"),
    ("sys.tq.amt.failure.handshake", "set"),
]
# What the agent does to each object, as (object, class, permissions): a path
# is labelled through the base's file_contexts and the project's (a /sys path
# through genfs_contexts), "type:T" names a label no file path gives (sockets,
# ports, the lock's tmpfs on Android 11 to 13). Each access must be allowed
# to the domain, by the project's rules or the base's.
ACCESSES = [
    ("/system/bin/ovta-amt", "file", {"entrypoint", "read", "execute", "map"}),
    ("/dev/ttyGS3", "chr_file", {"open", "read", "write", "ioctl", "getattr"}),
    ("/sys/devices/virtual/android_usb/android0/state", "file", {"open", "read", "getattr"}),
    ("/sys/class/android_usb", "dir", {"search"}),
    ("/sys/class/android_usb/android0", "lnk_file", {"read"}),
    ("/sys/devices/virtual/android_usb/android0", "dir", {"search"}),
    ("type:ovta_amt", "netlink_kobject_uevent_socket", {"create", "bind", "setopt", "read"}),
    ("/dev/graphics", "dir", {"search"}),
    ("/dev/graphics/fb0", "chr_file", {"open", "read", "write", "ioctl", "map"}),
    ("/dev/tty0", "chr_file", {"open", "read", "write", "ioctl"}),
    ("type:ovta_amt", "capability", {"sys_tty_config"}),
    ("/amt", "dir", {"search", "write", "add_name", "remove_name", "create"}),
    ("/amt/power_usb_amt.txt", "file", {"create", "open", "read", "write", "rename", "unlink", "getattr"}),
    ("/system/bin/toybox", "file", {"open", "read", "execute", "execute_no_trans", "map"}),
    ("/system/bin/sync", "lnk_file", {"read"}),
    ("/storage", "dir", {"search"}),
    ("type:vfat", "filesystem", {"getattr"}),
    ("/system/etc/ovta_amt.ini", "file", {"open", "read", "getattr"}),
    ("/system/lib64/hw", "dir", {"search"}),
    ("/system/lib64/hw/amt.platform.misc.so", "file", {"open", "read", "getattr", "execute", "map"}),
    ("type:ovta_amt", "tcp_socket", {"create", "connect", "read", "write", "getopt"}),
    ("type:port", "tcp_socket", {"name_connect"}),
    ("type:ovta_amt_tmp_file", "dir", {"search", "write", "add_name"}),
    ("type:ovta_amt_tmp_file", "file", {"create", "open", "read", "write", "lock"}),
    ("type:ovta_amt", "process", {"signal"}),
]
# What others do for the agent: init mounts the lock's tmpfs on Android 11 to
# 13 with rootcontext=, which the tmpfs must take (associate). As
# (domain, object, class, permissions).
OTHER_ACCESSES = [
    ("init", "type:tmpfs", "filesystem", {"mount", "relabelfrom"}),
    ("ovta_amt_tmp_file", "type:tmpfs", "filesystem", {"associate"}),
]
FILE_TYPE_OF_CLASS = {"file": "--", "dir": "-d", "chr_file": "-c", "blk_file": "-b", "lnk_file": "-l",
                      "sock_file": "-s", "fifo_file": "-p"}
PROPERTY_VALUE_TYPES = {"string", "bool", "int", "uint", "double", "enum"}


def release_dirs(release_root):
    """The folders m4 reads, in the build's order of folders."""
    dirs = []
    flagging = os.path.join(release_root, "flagging")
    if os.path.isdir(flagging):
        dirs.append(flagging)
    return dirs + [os.path.join(release_root, "public"), os.path.join(release_root, "private"), PROJECT]


def conf_order(release_root):
    """The build's list of file patterns, from policy.go when it has one."""
    go = os.path.join(release_root, "build", "soong", "policy.go")
    if os.path.exists(go):
        text = open(go, encoding="utf-8").read()
        m = re.search(r"policyConfOrder\s*=\s*\[\]string\{(.*?)\}", text, re.S)
        if m:
            return re.findall(r'"([^"]+)"', m.group(1))
    return CLASSIC_ORDER


def pattern_matches(pattern, name):
    return any(name == p or (p == "*.te" and name.endswith(".te")) for p in pattern.split("|"))


def ordered_sources(release_root):
    names = {d: sorted(os.listdir(d)) for d in release_dirs(release_root)}
    files = []
    for pattern in conf_order(release_root):
        for d in release_dirs(release_root):
            # Android 14 on takes attributes and the .te files as one group, in
            # the order of the folder; Debian's checkpolicy wants an attribute
            # declared before its first use, so attributes comes first.
            group = sorted((n for n in names[d] if pattern_matches(pattern, n)), key=lambda n: n != "attributes")
            files += [os.path.join(d, n) for n in group]
    return files


class Conf:
    """policy.conf with a map from its lines back to the source files' lines.

    m4 -s marks where each stretch of output comes from; a macro's expansion
    counts on past its call, so a line is capped at the line before the next
    mark of the same file."""

    def __init__(self, text):
        self.lines = []
        self.origin = []
        marks = []
        path = "policy.conf"
        for raw in text.split("\n"):
            m = re.match(r'#line (\d+)(?: "(.*)")?$', raw)
            if m:
                path = m.group(2) or path
                marks.append((len(self.lines), path, int(m.group(1))))
                continue
            self.lines.append(raw)
        for i, (start, path, line) in enumerate(marks):
            end = marks[i + 1][0] if i + 1 < len(marks) else len(self.lines)
            cap = length_of(path)
            if i + 1 < len(marks) and marks[i + 1][1] == path:
                cap = marks[i + 1][2] - 1
            for k in range(start, end):
                at = line + (k - start)
                if cap is not None and at > cap:
                    at = max(cap, line)
                self.origin.append((path, at))
        self.origin = [("policy.conf", 0)] * (len(self.lines) - len(self.origin)) + self.origin

    def text(self):
        return "\n".join(self.lines) + "\n"

    def where(self, conf_line):
        path, line = self.origin[conf_line - 1]
        return "%s:%d" % (shown(path), line)

    def statement(self, conf_line):
        """The neverallow statement around a line of the conf, on one line."""
        start = conf_line - 1
        while start > 0 and start > conf_line - 60 and not re.match(r"\s*neverallow", self.lines[start]):
            start -= 1
        out = []
        for raw in self.lines[start:start + 60]:
            out.append(raw.split("#", 1)[0].strip())
            if ";" in raw.split("#", 1)[0]:
                break
        text = re.sub(r"\s+", " ", " ".join(out))
        return text if len(text) <= 400 else text[:400] + " ..."

    def project_lines(self):
        for k, (path, line) in enumerate(self.origin):
            if path.startswith(PROJECT + os.sep):
                yield k + 1, path, line


LENGTHS = {}


def length_of(path):
    if path not in LENGTHS:
        try:
            with open(path, encoding="utf-8") as f:
                LENGTHS[path] = sum(1 for _ in f)
        except OSError:
            LENGTHS[path] = 1 << 30
    return LENGTHS[path]


def project_name():
    return os.path.relpath(PROJECT, ROOT) if PROJECT.startswith(ROOT + os.sep) else PROJECT


def shown(path):
    for root, name in ((PROJECT, project_name()), (BASE, "base")):
        if path.startswith(root + os.sep):
            return name + path[len(root):]
    return path


def parse_allow(line):
    """(sources, targets, classes, perms) of an allow rule on one line, nested sets flattened."""
    tokens = re.findall(r"[{}:;]|[^\s{}:;]+", line.split("#", 1)[0])
    if not tokens or tokens[0] != "allow":
        return None

    def field(i):
        if i >= len(tokens):
            raise IndexError
        if tokens[i] != "{":
            return {tokens[i]}, i + 1
        depth, names = 0, set()
        while True:
            tok = tokens[i]
            depth += (tok == "{") - (tok == "}")
            if tok not in "{}":
                names.add(tok)
            i += 1
            if depth == 0:
                return names, i

    try:
        src, i = field(1)
        tgt, i = field(i)
        if tokens[i] != ":":
            return None
        cls, i = field(i + 1)
        perms, i = field(i)
        return (src, tgt, cls, perms) if tokens[i] == ";" else None
    except IndexError:
        return None


def project_allows(conf):
    """The allow rules the project's own files expand to: (where, src, tgt, classes, perms)."""
    rules = []
    for k, path, line in conf.project_lines():
        rule = parse_allow(conf.lines[k - 1])
        if rule:
            src, tgt, cls, perms = rule
            tgt = {src_name if t == "self" else t for t in tgt for src_name in src}
            rules.append(("%s:%d" % (shown(path), line), src, tgt, cls, perms))
    return rules


def declaration_of(conf, type_name):
    for k, path, line in conf.project_lines():
        if re.match(r"\s*type\s+%s\s*[,;]" % re.escape(type_name), conf.lines[k - 1]):
            return "%s:%d" % (shown(path), line)
    return project_name()


def explain_neverallows(output, conf, release):
    """Groups libsepol's neverallow reports by the project's line that grants the access."""
    failures = []
    allows = project_allows(conf)
    for m in re.finditer(r"neverallow on line \d+ of \S+ \(or line (\d+) of \S+\) violated by "
                         r"allow (\S+) (\S+):(\S+) \{ ([^}]*) \};", output):
        conf_line, src, tgt, cls, perms = int(m.group(1)), m.group(2), m.group(3), m.group(4), set(m.group(5).split())
        mine = [w for w, s, t, c, p in allows if src in s and tgt in t and cls in c and p & perms]
        if not mine:
            mine = ["%s (granted by the base's rules for the attributes of %s)" % (declaration_of(conf, src), src)]
        base_at = conf.where(conf_line)
        for w in mine:
            failures.append("android-%s: %s: allow %s %s:%s { %s } breaks the neverallow at %s: %s"
                            % (release, w, src, tgt, cls, " ".join(sorted(perms)), base_at,
                               conf.statement(conf_line)))
    return failures


def run(cmd, **kw):
    return subprocess.run(cmd, capture_output=True, text=True, **kw)


def compile_policy(release, conf, work):
    """checkpolicy with every neverallow. A line of the project's policy that
    does not parse is reported and left out, and the rest compiled again, so
    that one unknown name does not hide the other faults; a policy that fails
    its neverallows is compiled again without them, so that the contexts can
    still be checked."""
    failures = []
    conf_path = os.path.join(work, "policy.conf")
    binary = os.path.join(work, "sepolicy")
    for _ in range(20):
        with open(conf_path, "w") as f:
            f.write(conf.text())
        res = run(["checkpolicy", "-M", "-c", "30", "-o", binary, conf_path])
        if res.returncode == 0:
            return binary, failures
        out = res.stdout + res.stderr
        if "neverallow failures occurred" in out:
            break
        errors = [(int(m.group(3)), m.group(1)) for m in
                  re.finditer(r"ERROR '(.*?)' at token '(.*?)' on line (\d+)", out)]
        failures += ["android-%s: %s: %s" % (release, conf.where(n), what) for n, what in errors]
        origins = {conf.origin[n - 1] for n, _ in errors if conf.origin[n - 1][0].startswith(PROJECT + os.sep)}
        if not errors:
            failures.append("android-%s: checkpolicy: %s" % (release, out.strip()))
        if not origins:
            return None, failures
        for k, origin in enumerate(conf.origin):
            if origin in origins:
                conf.lines[k] = ""
    else:
        return None, failures
    failures += explain_neverallows(out, conf, release)
    without = os.path.join(work, "policy-without-neverallows.conf")
    with open(without, "w") as f:
        f.write(re.sub(r"(?m)^\s*neverallow(x)?\b[^;]*;", "", conf.text()))
    res = run(["checkpolicy", "-M", "-c", "30", "-o", binary, without])
    return (binary if res.returncode == 0 else None), failures


def cil_route(release, conf, work, release_root):
    """The platform's CIL route: the conf as CIL, the technical debt appended, secilc."""
    cil = os.path.join(work, "plat_sepolicy.cil")
    res = run(["checkpolicy", "-C", "-M", "-c", "30", "-o", cil, os.path.join(work, "policy.conf")])
    if res.returncode != 0:
        return []  # the first route reports the error
    with open(cil, "a") as out, open(os.path.join(release_root, "private", "technical_debt.cil")) as debt:
        out.write(debt.read())
    res = run(["secilc", "-m", "-M", "true", "-G", "-c", "30", cil, "-o", os.devnull, "-f", os.devnull])
    if res.returncode == 0:
        return []
    out = res.stdout + res.stderr
    found = sorted(set(re.findall(r"\((allow \S+ \S+ \([^)]*\([^)]*\)\))\)", out)))
    return ["android-%s: CIL route (secilc): %s" % (release, rule) for rule in found] or \
        ["android-%s: CIL route (secilc): %s" % (release, out.strip()[-2000:])]


def context_lines(path):
    """(line number, fields) of each entry of a contexts file."""
    with open(path, encoding="utf-8") as f:
        for n, raw in enumerate(f, 1):
            text = raw.split("#", 1)[0].strip()
            if text:
                yield n, text.split()


def check_context(policy, context, where, release, failures, want_attrs=None):
    """A context's user, role, type and level exist; the type has one of want_attrs."""
    parts = context.split(":")
    if len(parts) < 4 or parts[0] != "u" or parts[1] != "object_r":
        failures.append("android-%s: %s: %s is not u:object_r:TYPE:LEVEL" % (release, where, context))
        return None
    type_name, level = parts[2], ":".join(parts[3:])
    try:
        t = policy.lookup_type(type_name)
    except Exception:
        failures.append("android-%s: %s: type %s is not declared in the compiled policy" % (release, where, type_name))
        return None
    if level != "s0":
        failures.append("android-%s: %s: level %s is not s0" % (release, where, level))
    attrs = {str(a) for a in t.attributes()}
    if want_attrs and not attrs & set(want_attrs):
        failures.append("android-%s: %s: type %s has none of the attributes %s" %
                        (release, where, type_name, ", ".join(want_attrs)))
    return t


# ---- file_contexts ----------------------------------------------------------

FILE_TYPES = {"--", "-d", "-c", "-b", "-s", "-l", "-p"}
META = set(".^$?*+|[({")


def fc_stem_len(regex):
    n = 0
    for ch in regex:
        if ch in META or ch == "\\":
            break
        n += 1
    return n


def fc_key(regex, file_type):
    """How closely a file_contexts entry fits a path (libselinux's sort:
    no metacharacter beats a regex, then the longer stem, the longer text, a
    file type); of equals, the later entry wins."""
    meta = fc_stem_len(regex) < len(regex)
    return (0 if meta else 1, fc_stem_len(regex), len(regex), 1 if file_type else 0)


def read_fc(path):
    entries = []
    for n, f in context_lines(path):
        if len(f) == 2:
            entries.append((n, f[0], None, f[1]))
        elif len(f) == 3 and f[1] in FILE_TYPES:
            entries.append((n, f[0], f[1], f[2]))
        else:
            entries.append((n, f[0], "?", " ".join(f[1:])))
    return entries


def probe_paths(regex):
    """Paths an entry is meant for: its stem, and a path below it when it takes one."""
    stem = regex[:fc_stem_len(regex)]
    paths = [stem] if stem else []
    if stem and re.fullmatch(regex, stem + "/x"):
        paths.append(stem + "/x")
    return [p for p in paths if re.fullmatch(regex, p)]


def check_file_contexts(policy, release, release_root, failures):
    ours_path = os.path.join(PROJECT, "file_contexts")
    base_path = os.path.join(release_root, "private", "file_contexts")
    base = read_fc(base_path)
    ours = read_fc(ours_path)
    compiled = []
    for n, regex, ftype, ctx in base:
        try:
            compiled.append((re.compile(regex), fc_key(regex, ftype), ftype, n, ctx))
        except re.error:
            pass
    for n, regex, ftype, ctx in ours:
        where = "%s/file_contexts:%d" % (project_name(), n)
        if ftype == "?":
            failures.append("android-%s: %s: not PATH [FILE_TYPE] CONTEXT" % (release, where))
            continue
        try:
            re.compile(regex)
        except re.error as e:
            failures.append("android-%s: %s: bad regex %s: %s" % (release, where, regex, e))
            continue
        t = check_context(policy, ctx, where, release, failures, ["file_type", "dev_type"])
        if t is None:
            continue
        attrs = {str(a) for a in t.attributes()}
        if regex.startswith("/system/") and "exec_type" in attrs:
            check_entry_domains(policy, t, where, release, failures)
        mine = fc_key(regex, ftype)
        for path in probe_paths(regex):
            beaten = [(key, bn, bctx) for rx, key, bft, bn, bctx in compiled
                      if key > mine and rx.fullmatch(path) and (bft in (None, ftype) or ftype is None)]
            if beaten:
                key, bn, bctx = max(beaten)
                failures.append("android-%s: %s: %s is labelled %s by the base's closer entry "
                                "base/android-%s/private/file_contexts:%d, not %s"
                                % (release, where, path, bctx, release, bn, ctx))


def file_label(path, cls, release_root):
    """The label file_contexts gives a path: the closest entry, of equals the
    later (the project's come after the base's)."""
    best = None
    entries = [(e, "base") for e in read_fc(os.path.join(release_root, "private", "file_contexts"))] + \
              [(e, "project") for e in read_fc(os.path.join(PROJECT, "file_contexts"))]
    for (n, regex, ftype, ctx), _ in entries:
        if ftype == "?" or (ftype and ftype != FILE_TYPE_OF_CLASS.get(cls)):
            continue
        try:
            if not re.fullmatch(regex, path):
                continue
        except re.error:
            continue
        key = fc_key(regex, ftype)
        if best is None or key >= best[0]:
            best = (key, ctx)
    return best[1].split(":")[2] if best else None


def genfs_label(path, release_root):
    """The label genfs_contexts gives a /sys path: the longest prefix."""
    best = None
    rel = path[len("/sys"):]
    for src in (os.path.join(release_root, "private", "genfs_contexts"), os.path.join(PROJECT, "genfs_contexts")):
        for n, f in context_lines(src):
            if len(f) >= 4 and f[1] == "sysfs" and rel.startswith(f[2]) and (best is None or len(f[2]) >= best[0]):
                best = (len(f[2]), f[-1])
    return best[1].split(":")[2] if best else "sysfs"


def allowed_to(policy, domain):
    """{(target type, class): permissions} of every allow rule that applies to
    a domain, attributes expanded: one pass over the rules, not one a query."""
    import setools
    grants = {}
    for rule in setools.TERuleQuery(policy, ruletype=["allow"], source=domain).results():
        targets = [domain] if str(rule.target) == "self" else [str(t) for t in rule.target.expand()]
        perms = {str(p) for p in rule.perms}
        for t in targets:
            grants.setdefault((t, str(rule.tclass)), set()).update(perms)
    return grants


def check_accesses(policy, release, release_root, failures):
    """Each thing the agent does is allowed to its domain, whoever's rule allows it."""
    grants = {}
    for domain, obj, cls, perms in [(DOMAIN,) + a for a in ACCESSES] + OTHER_ACCESSES:
        if obj.startswith("type:"):
            label = obj[len("type:"):]
        elif obj.startswith("/sys/"):
            label = genfs_label(obj, release_root)
        else:
            label = file_label(obj, cls, release_root)
        if label is None:
            failures.append("android-%s: %s has no label in file_contexts" % (release, obj))
            continue
        if domain not in grants:
            grants[domain] = allowed_to(policy, domain)
        missing = perms - grants[domain].get((label, cls), set())
        if missing:
            failures.append("android-%s: %s/ovta_amt.te: %s may not %s %s (%s:%s)"
                            % (release, project_name(), domain, " ".join(sorted(missing)), obj, label, cls))


def check_entry_domains(policy, exec_type, where, release, failures):
    """A domain entered from a /system program runs platform code: a coredomain."""
    import setools
    q = setools.TERuleQuery(policy, ruletype=["allow"], target=str(exec_type), tclass=["file"],
                            perms=["entrypoint"])
    for rule in q.results():
        for dom in rule.source.expand():
            if "coredomain" not in {str(a) for a in dom.attributes()}:
                failures.append("android-%s: %s: %s in /system is the entry point of %s, which is not a "
                                "coredomain (a vendor domain may not run /system files)"
                                % (release, where, exec_type, dom))


# ---- genfs_contexts ---------------------------------------------------------

def check_genfs_contexts(policy, release, release_root, failures):
    base = {}
    for n, f in context_lines(os.path.join(release_root, "private", "genfs_contexts")):
        if len(f) >= 4:
            base[(f[1], f[2])] = (n, f[-1])
    for n, f in context_lines(os.path.join(PROJECT, "genfs_contexts")):
        where = "%s/genfs_contexts:%d" % (project_name(), n)
        if len(f) not in (4, 5) or f[0] != "genfscon" or not f[2].startswith("/"):
            failures.append("android-%s: %s: not genfscon FS PATH CONTEXT" % (release, where))
            continue
        want = ["sysfs_type"] if f[1] == "sysfs" else ["fs_type"]
        check_context(policy, f[-1], where, release, failures, want)
        # A path inside a tree the base gives its own label takes that file
        # from the base's domains that read the tree; the file system's
        # catch-all label (path /) is no one's.
        covering = [(len(path), path, n, ctx) for (fs, path), (n, ctx) in base.items()
                    if fs == f[1] and path != "/" and (f[2] == path or f[2].startswith(path.rstrip("/") + "/"))]
        if covering:
            _, path, bn, bctx = max(covering)
            failures.append("android-%s: %s: %s %s lies in %s, labelled %s by "
                            "base/android-%s/private/genfs_contexts:%d; the base's domains would lose it"
                            % (release, where, f[1], f[2], path, bctx, release, bn))


# ---- property_contexts ------------------------------------------------------

def read_pc(path):
    entries = []
    for n, f in context_lines(path):
        entries.append((n, f))
    return entries


def pc_form_error(f):
    if len(f) == 2:
        return None
    if len(f) < 4 or f[2] not in ("exact", "prefix"):
        return "not NAME CONTEXT [exact|prefix TYPE [VALUES]]"
    if f[3] not in PROPERTY_VALUE_TYPES:
        return "value type %s is not one of %s" % (f[3], ", ".join(sorted(PROPERTY_VALUE_TYPES)))
    if f[3] != "enum" and len(f) > 4:
        return "only an enum takes values"
    return None


def resolve_property(name, entries):
    """The entry that labels a property: an exact match, else the longest prefix."""
    best = None
    for src, n, f in entries:
        exact = len(f) >= 3 and f[2] == "exact"
        if exact and f[0] == name:
            return src, n, f
        if not exact and (name.startswith(f[0]) or f[0] == "*"):
            length = 0 if f[0] == "*" else len(f[0])
            if best is None or length >= best[0]:
                best = (length, src, n, f)
    return best[1:] if best else None


def check_property_contexts(policy, release, release_root, failures):
    base_path = os.path.join(release_root, "private", "property_contexts")
    ours = read_pc(os.path.join(PROJECT, "property_contexts"))
    base = read_pc(base_path)
    for n, f in ours:
        where = "%s/property_contexts:%d" % (project_name(), n)
        err = pc_form_error(f)
        if err:
            failures.append("android-%s: %s: %s" % (release, where, err))
            continue
        check_context(policy, f[1], where, release, failures, ["property_type"])
        for bn, bf in base:
            if bf[0] == f[0]:
                failures.append("android-%s: %s: %s is labelled by the base already, "
                                "base/android-%s/private/property_contexts:%d"
                                % (release, where, f[0], release, bn))
    entries = [("base/android-%s/private/property_contexts" % release, n, f) for n, f in base] + \
              [(project_name() + "/property_contexts", n, f) for n, f in ours if not pc_form_error(f)]
    grants = allowed_to(policy, DOMAIN)
    for name, use in PROPERTIES:
        hit = resolve_property(name, entries)
        if hit is None:
            failures.append("android-%s: property %s has no label" % (release, name))
            continue
        src, n, f = hit
        label = f[1].split(":")[2]
        if use == "read":
            allowed = "read" in grants.get((label, "file"), set())
        else:
            allowed = "set" in grants.get((label, "property_service"), set())
        if not allowed:
            failures.append("android-%s: %s/ovta_amt.te: %s may not %s %s, labelled %s by %s:%d"
                            % (release, project_name(), DOMAIN, use, name, label, src, n))


def check_release(release, keep, cil):
    import setools
    release_root = os.path.join(BASE, "android-%s" % release)
    work = os.path.join(keep, "android-%s" % release) if keep else tempfile.mkdtemp(prefix="policy-check-")
    os.makedirs(work, exist_ok=True)
    try:
        cmd = ["m4", "--fatal-warnings"] + ["-D%s=%s" % kv for kv in M4_DEFINES.items()] + ["-s"] + \
            ordered_sources(release_root)
        res = run(cmd)
        if res.returncode != 0:
            return ["android-%s: m4: %s" % (release, res.stderr.strip())]
        conf = Conf(res.stdout)
        binary, failures = compile_policy(release, conf, work)
        if cil:
            failures += cil_route(release, conf, work, release_root)
        if binary is None:
            return failures + ["android-%s: the contexts are not checked: the policy does not compile" % release]
        policy = setools.SELinuxPolicy(binary)
        check_file_contexts(policy, release, release_root, failures)
        check_genfs_contexts(policy, release, release_root, failures)
        check_property_contexts(policy, release, release_root, failures)
        check_accesses(policy, release, release_root, failures)
        return failures
    finally:
        if not keep:
            shutil.rmtree(work, ignore_errors=True)


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("releases", nargs="*", help="release numbers (default: every folder in base-policy/)")
    ap.add_argument("--cil", action="store_true", help="also the CIL route through secilc")
    ap.add_argument("--jobs", type=int, default=min(2, os.cpu_count() or 1))
    ap.add_argument("--keep", help="keep each release's policy.conf and binary in this folder")
    ap.add_argument("--policy", help="the policy folder (default: android/sepolicy)")
    ap.add_argument("--variant", choices=("user", "userdebug", "eng"), default="user",
                    help="the build variant's defines (default: user)")
    args = ap.parse_args()
    M4_DEFINES["target_build_variant"] = args.variant
    if args.policy:
        global PROJECT
        PROJECT = os.path.abspath(args.policy)
    releases = args.releases or sorted((d[len("android-"):] for d in os.listdir(BASE) if d.startswith("android-")),
                                       key=int)
    for tool in ("m4", "checkpolicy") + (("secilc",) if args.cil else ()):
        if shutil.which(tool) is None:
            sys.exit("policy check: %s is missing (scripts/install-deps.sh installs it)" % tool)
    with concurrent.futures.ProcessPoolExecutor(max_workers=args.jobs) as pool:
        results = list(pool.map(check_release, releases, [args.keep] * len(releases), [args.cil] * len(releases)))
    failed = 0
    for release, failures in zip(releases, results):
        if failures:
            failed += 1
            print("android-%s: FAILED, %d problem(s)" % (release, len(failures)))
            for line in failures:
                print("  " + line)
        else:
            print("android-%s: passes" % release)
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
