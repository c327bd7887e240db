#!/usr/bin/env python3
"""Derives the malformed messages of this directory from the recorded ones (run it here).

The recorded files come from netlink-record (tests/hosts/linux/recorder); each malformed file
breaks one rule the parser must enforce.
"""
import struct


def read(name):
    with open(name, 'rb') as f:
        return bytearray(f.read())


def write(name, data):
    with open(name, 'wb') as f:
        f.write(bytes(data))


def set_len(msg, length):
    struct.pack_into('<I', msg, 0, length)
    return msg


def attr(kind, payload):
    data = struct.pack('<HH', 4 + len(payload), kind) + payload
    return data + b'\0' * (-len(data) % 4)


def message(kind, header, attrs):
    body = header + b''.join(attrs)
    return bytearray(struct.pack('<IHHII', 16 + len(body), kind, 0, 1, 0) + body)


route = read('route-gateway.bin')  # header, rtmsg, RTA_TABLE, RTA_DST, RTA_GATEWAY, RTA_OIF
write('truncated-header.bin', route[:10])
write('truncated-message.bin', route[:50])
write('truncated-attribute.bin', set_len(route[:58], 58))
bad = bytearray(route)
struct.pack_into('<H', bad, 0x34, 6)  # RTA_OIF with a 2-byte payload
write('bad-attribute-length.bin', bad)
write('short-header.bin', set_len(route[:20], 20))

link = read('link-veth.bin')
assert link[0x24:0x27] == b'va\0'
link[0x26] = ord('x')  # IFLA_IFNAME without its terminating NUL
write('link-name-unterminated.bin', link)

multipath = read('route-multipath.bin')
struct.pack_into('<H', multipath, 0x30, 0x30)  # first rtnexthop longer than RTA_MULTIPATH
write('multipath-overlong-entry.bin', multipath)

RTM_NEWNEXTHOP, NHA_ID, NHA_GROUP = 104, 1, 2
nhmsg = struct.pack('<BBBBI', 0, 0, 0, 0, 0)
write('nexthop-group-odd.bin',
      message(RTM_NEWNEXTHOP, nhmsg, [attr(NHA_ID, struct.pack('<I', 21)),
                                      attr(NHA_GROUP, struct.pack('<IBBH', 11, 0, 0, 0) +
                                           struct.pack('<I', 12))]))
nexthop = read('nexthop-gateway.bin')
assert struct.unpack_from('<HH', nexthop, 0x18) == (8, NHA_ID)
struct.pack_into('<H', nexthop, 0x1a, 0x3f)  # NHA_ID renamed to a type nobody knows
write('nexthop-without-id.bin', nexthop)

RTM_NEWNEIGH, NDA_DST = 28, 1
ndmsg = struct.pack('<BBHiHBB', 2, 0, 0, 2, 0x02, 0, 1)
write('neigh-short-dst.bin', message(RTM_NEWNEIGH, ndmsg, [attr(NDA_DST, b'\xc0\x00')]))
