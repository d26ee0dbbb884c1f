#!/usr/bin/python3
"""The policy check finds the faults it is there for: a copy of android/sepolicy
with one fault of each kind, checked against Android 14's base policy (the
release with the most to trip on: the base's own /tmp entry, flagging
macros, the build's newer order)."""
import os
import re
import shutil
import subprocess
import tempfile
import sys
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
CHECK = os.path.join(HERE, "policy_check.py")
RELEASE = "14"
sys.path.insert(0, HERE)
import policy_check  # noqa: E402


def append(path, text):
    """Appends lines to a file; returns the number of the first line added."""
    with open(path) as f:
        first = sum(1 for _ in f) + 1
    with open(path, "a") as f:
        f.write(text)
    return first


class PolicyCheck(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.work = tempfile.mkdtemp(prefix="policy-check-test-")
        policy = os.path.join(cls.work, "sepolicy")
        shutil.copytree(os.path.join(ROOT, "android", "sepolicy"), policy)
        te = os.path.join(policy, "ovta_amt.te")
        with open(te) as f:
            text = f.read()
        # The domain as it first was, a vendor process running from /system.
        text = text.replace("type ovta_amt, domain, coredomain;", "type ovta_amt, domain;")
        # The gadget's link no longer readable.
        text = text.replace("allow ovta_amt sysfs_android_usb:lnk_file read;", "")
        with open(te, "w") as f:
            f.write(text)
        cls.te_init = text.split("\n").index("init_daemon_domain(ovta_amt)") + 1
        cls.te_unknown = append(te, "get_prop(ovta_amt, no_such_prop)\n")
        cls.fc_tmp = append(os.path.join(policy, "file_contexts"),
                            "/tmp(/.*)?                  u:object_r:ovta_amt_tmp_file:s0\n")
        pc = os.path.join(policy, "property_contexts")
        cls.pc_bad_type = append(pc, "sys.tq.amt.x u:object_r:ovta_amt_verdict_prop:s0 exact strng\n")
        cls.pc_not_prop = append(pc, "sys.tq.amt.y u:object_r:ovta_amt_tmp_file:s0 exact int\n")
        cls.genfs_in_base = append(os.path.join(policy, "genfs_contexts"),
                                   "genfscon sysfs /devices/virtual/android_usb/android0/state "
                                   "u:object_r:ovta_amt_tmp_file:s0\n")
        res = subprocess.run([CHECK, "--policy", policy, RELEASE], capture_output=True, text=True)
        cls.status = res.returncode
        cls.out = res.stdout + res.stderr

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.work, ignore_errors=True)

    def finds(self, pattern):
        self.assertRegex(self.out, pattern)

    def test_fails_and_names_the_release(self):
        self.assertEqual(self.status, 1, self.out)
        self.finds(r"android-14: FAILED")

    def test_unknown_name_is_reported_at_its_line_and_the_rest_still_checked(self):
        self.finds(r"ovta_amt\.te:%d: unknown type no_such_prop" % self.te_unknown)
        self.finds(r"breaks the neverallow")  # compiled after the line was left out

    def test_neverallow_names_the_projects_line_and_the_base_rule(self):
        # The entry point comes from init_daemon_domain; the base rule is
        # quoted with its file and line.
        self.finds(r"sepolicy/ovta_amt\.te:%d: allow ovta_amt ovta_amt_exec:file \{[^}]*entrypoint[^}]*\} "
                   r"breaks the neverallow at base/android-14/public/domain\.te:\d+: "
                   r"neverallow \{ domain -coredomain \} \{ file_type -vendor_file_type -init_exec \}:file entrypoint;"
                   % self.te_init)
        self.finds(r"ovta_amt\.te:\d+: allow ovta_amt ovta_amt_verdict_prop:property_service \{ set \} breaks the "
                   r"neverallow at base/android-14/private/property\.te:\d+")

    def test_system_program_needs_a_coredomain(self):
        self.finds(r"file_contexts:2: ovta_amt_exec in /system is the entry point of ovta_amt, which is not a coredomain")

    def test_base_entry_closer_than_the_projects_is_reported(self):
        self.finds(r"file_contexts:%d: /tmp is labelled u:object_r:shell_data_file:s0 by the base's closer entry "
                   r"base/android-14/private/file_contexts:57" % self.fc_tmp)
        self.assertNotRegex(self.out, r"/tmp/x is labelled")

    def test_property_lines_are_checked(self):
        self.finds(r"property_contexts:%d: value type strng is not one of" % self.pc_bad_type)
        self.finds(r"property_contexts:%d: type ovta_amt_tmp_file has none of the attributes property_type"
                   % self.pc_not_prop)

    def test_genfs_path_in_a_base_tree_is_reported(self):
        self.finds(r"genfs_contexts:%d: sysfs /devices/virtual/android_usb/android0/state lies in "
                   r"/devices/virtual/android_usb, labelled u:object_r:sysfs_android_usb:s0" % self.genfs_in_base)
        self.finds(r"genfs_contexts:%d: type ovta_amt_tmp_file has none of the attributes sysfs_type"
                   % self.genfs_in_base)

    def test_each_access_of_the_agent_is_looked_up(self):
        self.finds(r"ovta_amt may not read /sys/class/android_usb/android0 \(sysfs_android_usb:lnk_file\)")
        # ro.build.display.tq.id falls to the base's catch-all entry, whose
        # label only a coredomain may read from Android 12 on.
        self.finds(r"ovta_amt may not read ro\.build\.display\.tq\.id, labelled default_prop by "
                   r"base/android-14/private/property_contexts:142")
        # ro.board.platform's exact entry, which every domain may read.
        self.assertNotRegex(self.out, r"may not read ro\.board\.platform")
        self.assertNotRegex(self.out, r"ovta_amt_tmp_file:(dir|file)\)")


class Resolution(unittest.TestCase):
    """The pieces that map the compiler's lines back and label paths and names
    as Android does, without the compiler."""

    def test_macro_expansion_lines_map_to_the_call(self):
        # m4 -s marks line 3; the macro's three output lines all come from
        # line 3, the next mark is line 4.
        conf = policy_check.Conf('#line 1 "/p/a.te"\none\ntwo\nx1\nx2\nx3\n#line 4\nfour\n')
        self.assertEqual([line for _, line in conf.origin[:6]], [1, 2, 3, 3, 3, 4])
        self.assertEqual(conf.origin[5][0], "/p/a.te")

    def test_allow_with_nested_sets_is_flattened(self):
        self.assertEqual(policy_check.parse_allow("allow a t:file { { read open } { execute } map };"),
                         ({"a"}, {"t"}, {"file"}, {"read", "open", "execute", "map"}))
        self.assertIsNone(policy_check.parse_allow("neverallow a t:file read;"))
        self.assertIsNone(policy_check.parse_allow("allow a t:file { read"))

    def test_file_contexts_order(self):
        key = policy_check.fc_key
        # An exact path beats any regex; of regexes the longer stem wins.
        self.assertGreater(key("/tmp", None), key("/tmp(/.*)?", None))
        self.assertGreater(key("/system/bin/sh", "--"), key("/system/bin(/.*)?", None))
        self.assertGreater(key("/dev/graphics(/.*)?", None), key("/dev(/.*)?", None))

    def test_property_takes_exact_entry_else_longest_prefix_else_default(self):
        entries = [("b", 1, ["*", "u:object_r:default_prop:s0"]),
                   ("b", 2, ["ro.", "u:object_r:ro_prop:s0"]),
                   ("b", 3, ["ro.build.", "u:object_r:build_prefix_prop:s0"]),
                   ("b", 4, ["ro.build.id", "u:object_r:build_prop:s0", "exact", "string"])]
        label = lambda name: policy_check.resolve_property(name, entries)[2][1]
        self.assertEqual(label("ro.build.id"), "u:object_r:build_prop:s0")
        self.assertEqual(label("ro.build.id.x"), "u:object_r:build_prefix_prop:s0")
        self.assertEqual(label("ro.board.platform"), "u:object_r:ro_prop:s0")
        self.assertEqual(label("sys.x"), "u:object_r:default_prop:s0")


if __name__ == "__main__":
    unittest.main()
