#!/usr/bin/env python3
"""Writes MBFile keyed archives in the layouts devices use, with Python's plistlib.

Run once from this folder; the outputs are committed beside this script and read by
tests/Quiver/MB/FileTests.cpp, which states the values each one must decode to.
"""
import plistlib

UID = plistlib.UID
MBFILE_CLASS = {"$classname": "MBFile", "$classes": ["MBFile", "NSObject"]}
MUTABLE_DATA_CLASS = {"$classname": "NSMutableData", "$classes": ["NSMutableData", "NSData", "NSObject"]}
DICTIONARY_CLASS = {"$classname": "NSDictionary", "$classes": ["NSDictionary", "NSObject"]}
MUTABLE_STRING_CLASS = {"$classname": "NSMutableString", "$classes": ["NSMutableString", "NSString", "NSObject"]}

DIGEST = bytes(range(1, 21))
WRAPPED_KEY = (3).to_bytes(4, "little") + bytes(range(100, 140))


def archive(objects, root=1):
    return {
        "$version": 100000,
        "$archiver": "NSKeyedArchiver",
        "$top": {"root": UID(root)},
        "$objects": ["$null"] + objects,
    }


def write(name, plist, fmt=plistlib.FMT_BINARY):
    with open(name, "wb") as f:
        f.write(plistlib.dumps(plist, fmt=fmt, sort_keys=False))


def common(**extra):
    fields = {
        "LastModified": 1610674653,
        "Flags": 0,
        "GroupID": 501,
        "LastStatusChange": 1610674660,
        "Birth": 1610674600,
        "Size": 1620,
        "Mode": 0o100644,
        "UserID": 501,
        "InodeNumber": 162058,
        "ProtectionClass": 3,
    }
    fields.update(extra)
    return fields


# A regular file: the path and the digest as plain objects, the key as an NSMutableData object.
write("ios-file.bplist", archive([
    dict(common(RelativePath=UID(2), Digest=UID(3), EncryptionKey=UID(4)), **{"$class": UID(6)}),
    "Library/Preferences/com.example.plist",
    DIGEST,
    {"NS.data": WRAPPED_KEY, "$class": UID(5)},
    MUTABLE_DATA_CLASS,
    MBFILE_CLASS,
]))

# A domain's top directory: an empty path, no digest, no key, no inode.
fields = common(RelativePath=UID(2), Mode=0o40755, Size=0, ProtectionClass=0)
del fields["InodeNumber"]
write("ios-directory.bplist", archive([dict(fields, **{"$class": UID(3)}), "", MBFILE_CLASS]))

# A symbolic link, with IDs written the way 32-bit -2 reaches a property list, a size that needs the
# 16-byte integer form, and a path that plistlib stores as UTF-16.
write("ios-symlink.bplist", archive([
    dict(common(RelativePath=UID(2), Target=UID(3), Mode=0o120755, UserID=-2, GroupID=4294967294,
                Size=2**63 + 5, LastModified=-86400),
         **{"$class": UID(4)}),
    "Library/Caches/Ünïcödé link",
    "/var/mobile/Library/Caches",
    MBFILE_CLASS,
]))

# Extended attributes as data holding a binary property list, as devices write them.
xattrs = {"com.apple.TextEncoding": b"utf-8;134217984", "com.apple.rootless": b"coreknowledge"}
write("ios-xattr-data.bplist", archive([
    dict(common(RelativePath=UID(2), ExtendedAttributes=UID(3)), **{"$class": UID(4)}),
    "Media/DCIM/100APPLE/IMG_0034.PNG",
    plistlib.dumps(xattrs, fmt=plistlib.FMT_BINARY),
    MBFILE_CLASS,
]))

# Extended attributes as an archived NSDictionary, one value plain and one an NSMutableData object;
# the path as an NSMutableString object.
write("archived-xattr.bplist", archive([
    dict(common(RelativePath=UID(2), ExtendedAttributes=UID(4)), **{"$class": UID(11)}),
    {"NS.string": "Documents/notes.txt", "$class": UID(3)},
    MUTABLE_STRING_CLASS,
    {"NS.keys": [UID(5), UID(6)], "NS.objects": [UID(7), UID(8)], "$class": UID(10)},
    "com.example.first",
    "com.example.second",
    b"\x00\x01\x02",
    {"NS.data": b"second value", "$class": UID(9)},
    MUTABLE_DATA_CLASS,
    DICTIONARY_CLASS,
    MBFILE_CLASS,
]))

# The same record as the regular file, in an XML property list: UIDs become {"CF$UID": n}.
def xml_uids(value):
    if isinstance(value, UID):
        return {"CF$UID": value.data}
    if isinstance(value, dict):
        return {k: xml_uids(v) for k, v in value.items()}
    if isinstance(value, list):
        return [xml_uids(v) for v in value]
    return value


with open("ios-file.bplist", "rb") as f:
    write("ios-file.xml", xml_uids(plistlib.loads(f.read())), fmt=plistlib.FMT_XML)
