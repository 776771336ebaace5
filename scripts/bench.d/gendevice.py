#!/usr/bin/env python3
"""Writes a generated device for the benchmarks: a master configuration file declaring PARAMS
parameters spread evenly over FILES backing files in the Standard format, and the files.

    gendevice.py DIR PARAMS FILES

DIR/tessard.conf declares root.Bench.F<i>.S<j>_K<k>; DIR/data/f<i>.conf holds the values, ten keys
per section. Two more files of 100 parameters each are there for the SET measures:
root.Write.Small (about 1 KB, DIR/data/small.conf) and root.Write.Large (about 100 KB).
"""
import os
import sys


def main():
    top, params, files = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
    data = os.path.join(top, "data")
    os.makedirs(data, exist_ok=True)
    conf = ['accessControl = ":3"', "group Bench {"]
    for f in range(files):
        add_file(conf, "F%04d" % f, os.path.join(data, "f%04d.conf" % f), params // files, 8)
    conf += ["}", "group Write {"]
    add_file(conf, "Small", os.path.join(data, "small.conf"), 100, 8)
    add_file(conf, "Large", os.path.join(data, "large.conf"), 100, 1000)
    conf.append("}")
    with open(os.path.join(top, "tessard.conf"), "w") as out:
        out.write("\n".join(conf) + "\n")


def add_file(conf, group, path, per_file, value_bytes):
    """Declares group with per_file parameters bound to a new Standard file at path."""
    conf.append('  group %s {' % group)
    conf.append('    file = "%s"' % path)
    conf.append('    parser = "Standardparser"')
    conf.append('    type = "string:maxlen=1024"')
    lines = ["# generated backing file"]
    for p in range(per_file):
        section, key = divmod(p, 10)
        if key == 0:
            lines.append("[s%d]" % section)
        name = "S%d_K%d" % (section, key)
        conf.append('    param %s { mount = "Standard{s%d}{k%d}" }' % (name, section, key))
        lines.append("k%d %s" % (key, ("v%d" % p).ljust(value_bytes, "x")))
    conf.append("  }")
    with open(path, "w") as out:
        out.write("\n".join(lines) + "\n")


main()
