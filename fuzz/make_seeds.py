#!/usr/bin/env python3
"""Writes raw seed inputs for the fuzz targets into DIR/<target>/ from the
bundled captures (tests/data/captures) and the rule texts of the tests.
They are then merged small into the committed corpus with libFuzzer's
-merge=1 (see the README).  Usage: fuzz/make_seeds.py DIR"""
import glob, hashlib, os, re, struct, sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def packets(path):
    """(link type, frame bytes) of every frame of a little- or big-endian pcap."""
    d = open(path, 'rb').read()
    order = '<' if d[:4] in (b'\xd4\xc3\xb2\xa1', b'\x4d\x3c\xb2\xa1') else '>'
    link = struct.unpack(order + 'I', d[20:24])[0]
    pos = 24
    while pos + 16 <= len(d):
        incl = struct.unpack(order + 'I', d[pos + 8:pos + 12])[0]
        yield link, d[pos + 16:pos + 16 + incl]
        pos += 16 + incl


def ip_layer(link, frame):
    """(Ethernet header bytes, IP packet) or None."""
    if link == 1:
        off, eth = 12, frame[:12]
        while off + 2 <= len(frame) and frame[off:off + 2] in (b'\x81\x00', b'\x88\xa8'):
            off += 4
        if frame[off:off + 2] in (b'\x08\x00', b'\x86\xdd'):
            return eth, frame[off + 2:]
    elif link in (101, 228, 229):
        return bytes(12), frame
    elif link == 113:
        return bytes(12), frame[16:]
    return None


def udp_payload(ip, port=None):
    if not ip or ip[0] >> 4 != 4 or ip[9] != 17:
        return None
    hl = (ip[0] & 15) * 4
    udp = ip[hl:]
    if port is not None and port not in struct.unpack('>HH', udp[:4]):
        return None
    return udp[8:]


def test_strings(pattern, call_re):
    found = []
    for f in sorted(glob.glob(os.path.join(ROOT, 'tests', pattern))):
        found += re.findall(call_re, open(f, encoding='utf-8', errors='replace').read())
    return sorted(set(s.encode().decode('unicode_escape').encode('latin-1', 'replace') for s in found))


def data_lines(name):
    path = os.path.join(ROOT, 'tests', 'data', name)
    return [l.rstrip('\n').encode() for l in open(path) if l.strip()]


def write(out, target, data):
    d = os.path.join(out, target)
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, hashlib.sha1(data).hexdigest()), 'wb') as f:
        f.write(data)


def main(out):
    frames = []
    for path in sorted(glob.glob(os.path.join(ROOT, 'tests', 'data', 'captures', '*.pcap'))):
        for link, frame in packets(path):
            layer = ip_layer(link, frame)
            if layer:
                frames.append(layer)
    rules = test_strings('test_clfy*.cpp', r'(?:nuv_clfy_parse|add|parse|parse_result)\("((?:[^"\\]|\\.)*)"')
    access = data_lines('access-rules.txt') + test_strings('test_rules_access*.cpp', r'ipaccess_parse\(&\w+, "((?:[^"\\]|\\.)*)"')
    masq = data_lines('masq-rules.txt') + test_strings('test_rules_masq*.cpp', r'_parse\(&\w+, "((?:[^"\\]|\\.)*)"')
    ip6fw = data_lines('ip6-forward-rules.txt') + test_strings('test_rules_ip6fw*.cpp', r'parse\(\w*,? ?"((?:[^"\\]|\\.)*)"')
    matches = test_strings('test_dhcp_match*.cpp', r'match\w*\("((?:[^"\\]|\\.)*)"')

    for eth, ip in frames:
        head = b'\x01\x01\x00\x00\x00' + eth
        write(out, 'pkt', ip)
        write(out, 'clfy_match', head + ip)
        dns = udp_payload(ip, 53)
        if dns:
            write(out, 'platform', b'\x0c' + dns)
        dhcp = udp_payload(ip, 67)
        if dhcp:
            for i, m in enumerate(matches[:40]):
                write(out, 'dhcp', struct.pack('>H', len(m)) + m + dhcp)
            write(out, 'dhcp', b'\x00\x00' + dhcp)
            write(out, 'dhcp_alloc', b'\x05\x00\x00' + dhcp)
    for i, r in enumerate(rules):
        eth, ip = frames[i % len(frames)]
        write(out, 'clfy_rule', r + b'\x00\x01\x01\x00\x00\x00' + eth + ip)
        write(out, 'clfy_rule', r + b'\n' + rules[(i * 7 + 3) % len(rules)] + b'\x00\x01\x01\x00\x00\x00' + eth + ip)
    for group in (access, masq, ip6fw):
        for i in range(0, len(group), 4):
            write(out, 'rules', b'\x08' + b'\n'.join(group[i:i + 4]))
    for text in (b'2001:db8::1', b'::ffff:10.1.2.3', b'10.1.2.3', b'fe80::1%eth0', b'tcp', b'P200',
                 b'00:11:22:33:44:55', b'"quoted" rest', b'0x1f', b'10.0.0.0 255.0.0.0'):
        write(out, 'pkt', text + b'\x00' + bytes(40))
    for text in (b'host.example.com\x00*.example.com', b'abc\x00[a-c]?c', b'MSFT 5.0\x00msft*'):
        write(out, 'platform', text)


if __name__ == '__main__':
    main(sys.argv[1])
