#!/bin/bash
# Checks morvane.lua: writes a capture, lets tshark read it and compares the fields that it shows with
# those that are expected. Nothing is installed; without tshark it ends with status 77 (skipped).
#
#     tools/wireshark/check.sh [--keep FILE]      --keep: leave the capture there
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
capture=$work/capture.pcap
failures=0

# --- writing a capture: IPv4 packets without a link layer, all in hex until the end ---

hex="" # of the whole file
declare -A nextByte=() # of each direction of a TCP connection: its sequence number

le32() { # a number as four bytes, low one first
    local be
    printf -v be '%08x' "$1"
    echo "${be:6:2}${be:4:2}${be:2:2}${be:0:2}"
}

beginCapture() {
    hex="d4c3b2a1020004000000000000000000$(le32 65535)$(le32 101)"
}

# addIp PROTOCOL HEX: from 192.0.2.1 to 192.0.2.2.
addIp() {
    local size=$((20 + ${#2} / 2)) header
    printf -v header '4500%04x000040004%s0000c0000201c0000202' "$size" "0$1"
    hex+="0000000000000000$(le32 "$size")$(le32 "$size")$header$2"
}

# addUdp PORT TO-PORT HEX
addUdp() {
    local header
    printf -v header '%04x%04x%04x0000' "$1" "$2" $((8 + ${#3} / 2))
    addIp 11 "$header$3"
}

# addTcp PORT TO-PORT HEX: the next piece of the stream in this direction.
addTcp() {
    local header stream=$1-$2
    printf -v header '%04x%04x%08x000000015018ffff00000000' "$1" "$2" "${nextByte[$stream]:=1}"
    nextByte[$stream]=$((nextByte[$stream] + ${#3} / 2))
    addIp 06 "$header$3"
}

writeCapture() {
    # shellcheck disable=SC2001 # not what the shell can replace
    local -r escaped=$(sed 's/../\\x&/g' <<<"$hex")
    # shellcheck disable=SC2059 # the bytes are the format
    printf "$escaped" >"$capture"
}

# --- what tshark makes of it ---

# fields PORT-PREFERENCES FILTER FIELD...: of each packet one line, empty fields as "-".
fields() {
    local preferences=$1 filter=$2 field arguments=()
    shift 2
    for field in "$@"; do
        arguments+=(-e "$field")
    done
    # shellcheck disable=SC2086 # several words
    tshark -X "lua_script:$here/morvane.lua" $preferences -r "$capture" -Y "$filter" -T fields \
        -E separator='|' -E aggregator=' ' "${arguments[@]}" 2>"$work/stderr" |
        sed -e ':again' -e 's/^|/-|/;s/||/|-|/;t again' -e 's/|$/|-/'
    grep -i 'lua' "$work/stderr" >&2 || true
}

# same WHAT ACTUAL: compares with the expected lines on standard input.
same() {
    if diff -u --label expected --label actual - <(echo "$2"); then
        echo "ok: $1"
    else
        echo "NOT AS EXPECTED: $1"
        failures=$((failures + 1))
    fi
}

# --- the file transfer over UDP ---

# A whole transfer as the engines make it, then packets that are odd or wrong.
writeTransfer() {
    local long i
    beginCapture
    addUdp 9000 9001 a4d500000007000108b12900000001612e646174012c
    addUdp 9000 9001 a4d50200000d000102b229000200000000ff68
    addUdp 9001 9000 a4d50000000d000104b329000200000000ff69
    addUdp 9000 9001 a4d50300000d00010eb129000178dacb48cdc9c90700062c0215ff87
    addUdp 9000 9001 a4d50700000d000102b22900040001000100010001ff73
    addUdp 9001 9000 a4d50200000e000105b32900040001000100010001ff73
    addUdp 9001 9000 a4d50500000e000105b3290000ff6e         # nothing is held
    addUdp 9000 9001 a4d503000000130109b45441473132026869015f # an information message
    addUdp 9000 9001 a4d501000007000108b10000000003e42e74787400b0 # a name in Latin-1
    long=a4d5c80000fa0001fbb17fffff
    for ((i = 0; i < 250; ++i)); do
        printf -v long '%s%02x' "$long" "$i"
    done
    addUdp 9000 9001 "${long}fefa"                          # the longest packet
    addUdp 9000 9001 a4d50200000d000102b229000200000000ff69 # a bad checksum
    addUdp 9000 9001 00d50200000d000102b229000200000000ffc4 # one marker only
    addUdp 9000 9001 a4d50300000d00010eb129                 # shorter than any packet
    addUdp 9000 9001 a4d50300000d00010eb129000178dacb48     # shorter than it claims
    addUdp 9000 9001 a4d50200000d000102b22900030000ff68     # the same with entries
    addUdp 9000 9001 a4d50200000d000102b5290000ffff         # an unknown kind
    addUdp 9000 9001 0102030405060708090a0b0c0d0e0f         # no packet at all
    writeCapture
}

checkTransfer() {
    local ports="-o morvane.ports:9000-9001" filter="morvane && !morvane.dropped"
    writeTransfer
    same "every packet, its kind and its numbers" "$(fields "$ports" "$filter" frame.number \
        morvane.sequence morvane.length morvane.record_length morvane.kind morvane.id \
        morvane.number morvane.entry_count morvane.entry morvane.held)" <<'EXPECTED'
1|0|7|8|0xb1|41|0|-|-|-
2|2|13|2|0xb2|41|-|2|0 0|-
3|0|13|4|0xb3|41|-|2|0 0|1
4|3|13|14|0xb1|41|1|-|-|-
5|7|13|2|0xb2|41|-|4|1 1 1 1|-
6|2|14|5|0xb3|41|-|4|1 1 1 1|2
7|5|14|5|0xb3|41|-|0|-|2
8|3|19|9|0xb4|-|-|-|-|-
9|1|7|8|0xb1|0|0|-|-|-
10|200|250|251|0xb1|127|65535|-|-|-
11|2|13|2|0xb2|41|-|2|0 0|-
12|2|13|2|0xb2|41|-|2|0 0|-
EXPECTED
    same "checksums, verified" "$(fields "$ports" "$filter" frame.number morvane.checksum \
        morvane.checksum.expected morvane.checksum.good)" <<'EXPECTED'
1|0x012c|0x012c|1
2|0xff68|0xff68|1
3|0xff69|0xff69|1
4|0xff87|0xff87|1
5|0xff73|0xff73|1
6|0xff73|0xff73|1
7|0xff6e|0xff6e|1
8|0x015f|0x015f|1
9|0x00b0|0x00b0|1
10|0xfefa|0xfefa|1
11|0xff69|0xff68|0
12|0xffc4|0xffc4|1
EXPECTED
    same "information records" "$(fields "$ports" "morvane.file.count" frame.number \
        morvane.file.count morvane.file.name)" <<'EXPECTED'
1|1|a.dat
9|3|ä.txt
EXPECTED
    same "payload and text" "$(fields "$ports" "frame.number in {4, 8}" \
        morvane.payload_length morvane.payload morvane.tag morvane.text)" <<'EXPECTED'
13|78dacb48cdc9c90700062c0215|-|-
-|-|5441473132|hi
EXPECTED
    same "packets that a receiver drops" "$(fields "$ports" "morvane.dropped" frame.number \
        _ws.col.Info)" <<'EXPECTED'
13|dropped: it is shorter than any packet
14|Data, dropped: it is shorter than it claims
15|Status request, dropped: it is shorter than it claims
16|Kind b5, dropped: its kind is unknown
EXPECTED
    same "one line for each packet" "$(fields "$ports" "frame.number in {1, 2, 6, 7, 10}" \
        _ws.col.Protocol _ws.col.Info)" <<'EXPECTED'
Morvane|Data, id 41, packet 0: file "a.dat" in 1 packets
Morvane|Status request, id 41: 0 0
Morvane|Acknowledgement, id 41: 1 1 1 1
Morvane|Acknowledgement, id 41: nothing
Morvane|Data, id 127, packet 65535: 250 bytes
EXPECTED
    same "what bears no marker is left to others" \
        "$(fields "$ports" "frame.number == 17" frame.protocols)" <<<"raw:ip:udp:data"
    same "other ports are left alone" \
        "$(fields "-o morvane.ports:5000" "morvane" frame.number)" <<<""
}

# --- the TCP link ---

writeLink() {
    beginCapture
    # Two records and the first half of a third, then its rest; one cut inside its length.
    addTcp 40000 7071 0800000074656d7064624142040000006c697665060000006572
    addTcp 40000 7071 726f7278
    addTcp 7071 40000 68656c6c6f
    addTcp 40000 7071 0900
    addTcp 40000 7071 000074656d7064625f747800000000
    addTcp 40000 7071 ffffffff4142
    writeCapture
}

# Numbers: one alone, one and a half, the rest in single bytes, the largest.
writeNumbers() {
    beginCapture
    addTcp 7071 40000 0100000000000000
    addTcp 7071 40000 030000000000000004010000
    addTcp 7071 40000 0000
    addTcp 7071 40000 00
    addTcp 7071 40000 00
    addTcp 7071 40000 ffffffffffffffff
    writeCapture
}

checkLink() {
    local ports="-o morvane_tcp.ports:7071"
    writeLink
    same "records, put together over segments" "$(fields "$ports" "morvane_tcp.length" \
        frame.number morvane_tcp.length morvane_tcp.body morvane_tcp.keep_alive \
        morvane_tcp.kind)" <<'EXPECTED'
1|8 4|74656d7064624142 6c697665|0 1|tempdb
2|6|6572726f7278|0|error
5|9 0|74656d7064625f7478|0|tempdb_t, or tempdb with a payload that begins with _t empty
6|4294967295|-|-|-
EXPECTED
    same "a length that cannot be one" \
        "$(fields "$ports" "morvane_tcp.too_long" frame.number)" <<<"6"
    same "bytes from the peer, of which the module takes no notice" \
        "$(fields "$ports -o morvane_tcp.acknowledgements:FALSE" "morvane_tcp.unused" \
            frame.number morvane_tcp.unused)" <<<"3|68656c6c6f"
    same "other ports are left alone" \
        "$(fields "-o morvane_tcp.ports:5000" "morvane_tcp" frame.number)" <<<""
    writeNumbers
    same "numbers of the peer, put together over segments" "$(fields "$ports" \
        "morvane_tcp.stored" frame.number morvane_tcp.stored)" <<'EXPECTED'
1|1
2|3
5|260
6|18446744073709551615
EXPECTED
}

if ! command -v tshark >/dev/null; then
    echo "tshark is not installed: the dissector was not checked."
    exit 77
fi
checkTransfer
[[ ${1-} != --keep ]] || cp "$capture" "$2"
checkLink
if ((failures)); then
    echo "$failures of the checks failed."
    exit 1
fi
