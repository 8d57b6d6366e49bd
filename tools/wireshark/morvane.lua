-- Wireshark and tshark: the file transfer over UDP (filter "morvane"), the records of the TCP link and the
-- numbers that acknowledge them ("morvane_tcp"). docs/udp-transfer.md and docs/tcp-link.md describe both.
--
--     wireshark -X lua_script:morvane.lua
--     tshark -X lua_script:morvane.lua -o morvane.ports:9000 -Y morvane -r capture.pcap
--
-- To have it always, copy it into the folder that "tshark -G folders" names for personal Lua plugins.
-- The ports are preferences of the two protocols; "Decode As" works too. check.sh checks this file.

local transfer = Proto("morvane", "Morvane file transfer")
local link = Proto("morvane_tcp", "Morvane TCP link")

-- Ports -------------------------------------------------------------------------------------------

local highestPort = 65535

transfer.prefs.ports = Pref.range("UDP ports", "7071,9000",
    "Ports of the file transfer: the settings LocalPort and Port", highestPort)
link.prefs.ports = Pref.range("TCP ports", "7071",
    "Ports on which peers listen: the setting Port", highestPort)
link.prefs.longest_record = Pref.uint("Longest record", 50000000,
    "A longer body is taken for a sign that the records are read from a wrong place")
link.prefs.acknowledgements = Pref.bool("Acknowledgements", true,
    "The peer writes numbers of eight bytes; otherwise the module throws away what it writes")

local registered = {}

-- Gives a protocol the ports of its preference in place of those that it had.
local function registerPorts(proto, tableName)
    local ports = DissectorTable.get(tableName)
    if registered[tableName] then
        ports:remove(registered[tableName], proto)
    end
    registered[tableName] = proto.prefs.ports
    ports:add(proto.prefs.ports, proto)
end

function transfer.prefs_changed()
    registerPorts(transfer, "udp.port")
end

function link.prefs_changed()
    registerPorts(link, "tcp.port")
end

-- Whether a port is within a text such as "7071,9000-9010".
local function isInRange(port, range)
    for first, last in range:gmatch("(%d+)%-?(%d*)") do
        local upper = last ~= "" and tonumber(last) or tonumber(first)
        if tonumber(first) <= port and port <= upper then
            return true
        end
    end
    return false
end

-- The file transfer -------------------------------------------------------------------------------

local data, statusRequest, acknowledgement, information = 0xB1, 0xB2, 0xB3, 0xB4
local kinds = {
    [data] = "Data",
    [statusRequest] = "Status request",
    [acknowledgement] = "Acknowledgement",
    [information] = "Information message",
}

-- Offsets and sizes, in bytes.
local lengthAt, recordLengthAt, kindAt, bodyAt = 5, 8, 9, 10
local entriesAt = 13 -- payload or entries, behind the transfer id and a number
local tagSize, textAt = 5, 16
local checksumSize = 2
local longestRecord, longestName = 251, 97

local markers = ProtoField.uint16("morvane.markers", "Markers", base.HEX)
local sequence = ProtoField.uint8("morvane.sequence", "Sequence")
local station = ProtoField.uint16("morvane.station", "Station")
local length = ProtoField.uint16("morvane.length", "Length")
local recordCount = ProtoField.uint8("morvane.record_count", "Record count")
local recordLength = ProtoField.uint8("morvane.record_length", "Record length")
local kind = ProtoField.uint8("morvane.kind", "Kind", base.HEX, kinds)
local id = ProtoField.uint8("morvane.id", "Transfer id")
local number = ProtoField.uint16("morvane.number", "Packet number")
local payload = ProtoField.bytes("morvane.payload", "Payload")
local payloadLength = ProtoField.uint8("morvane.payload_length", "Payload length")
local fileCount = ProtoField.uint16("morvane.file.count", "Data packets of the file")
local fileName = ProtoField.string("morvane.file.name", "File name")
local entryCount = ProtoField.uint16("morvane.entry_count", "Entries")
local entry = ProtoField.uint16("morvane.entry", "Packet number")
local held = ProtoField.uint8("morvane.held", "Packets held (low byte)")
local tag = ProtoField.bytes("morvane.tag", "Tag")
local textLength = ProtoField.uint8("morvane.text_length", "Text length")
local text = ProtoField.string("morvane.text", "Text", base.UNICODE)
local checksum = ProtoField.uint16("morvane.checksum", "Checksum", base.HEX)
local checksumExpected = ProtoField.uint16("morvane.checksum.expected", "Expected", base.HEX)
local checksumGood = ProtoField.bool("morvane.checksum.good", "Good")
local dropped = ProtoExpert.new("morvane.dropped", "A receiver drops this packet",
    expert.group.MALFORMED, expert.severity.ERROR)
local badChecksum = ProtoExpert.new("morvane.checksum.bad",
    "Bad checksum; receivers take the packet all the same", expert.group.CHECKSUM,
    expert.severity.WARN)

transfer.fields = { markers, sequence, station, length, recordCount, recordLength, kind, id, number,
    payload, payloadLength, fileCount, fileName, entryCount, entry, held, tag, textLength, text,
    checksum, checksumExpected, checksumGood }
transfer.experts = { dropped, badChecksum }

-- The low 16 bits of the sum of all bytes, each as a signed number.
local function checksumOf(buffer)
    local sum = 0
    for i = 0, buffer:len() - 1 do
        local byte = buffer(i, 1):uint()
        sum = sum + (byte < 128 and byte or byte - 256)
    end
    return sum % 65536
end

-- What is left of the packet must be its checksum.
local function addChecksum(buffer, at, tree)
    if buffer:len() < at + checksumSize then
        return
    end
    local range = buffer(at, checksumSize)
    local expected = checksumOf(buffer(0, at))
    local isGood = range:uint() == expected
    local item = tree:add(checksum, range)
    item:add(checksumExpected, range, expected):set_generated()
    item:add(checksumGood, range, isGood):set_generated()
    if not isGood then
        item:add_proto_expert_info(badChecksum)
    end
end

local function drop(tree, why)
    tree:add_proto_expert_info(dropped, "A receiver drops this packet: " .. why)
    return "dropped: " .. why
end

local function addHeader(buffer, tree)
    tree:add(markers, buffer(0, 2))
    tree:add(sequence, buffer(2, 1))
    tree:add(station, buffer(3, 2))
    local lengthBytes = buffer(lengthAt, 2)
    if buffer(kindAt, 1):uint() == information then
        tree:add(length, lengthBytes)
    else
        tree:add_le(length, lengthBytes)
    end
    tree:add(recordCount, buffer(7, 1))
    tree:add(recordLength, buffer(recordLengthAt, 1))
    tree:add(kind, buffer(kindAt, 1))
end

-- The payload of packet 0. A record has one byte more than its payload.
local function addFile(buffer, size, tree)
    local nameSize = size - 3
    if nameSize < 0 or nameSize > longestName then
        return drop(tree, "no information record has " .. size .. " bytes")
    end
    tree:add(fileCount, buffer(entriesAt, 2))
    local name = ""
    if nameSize > 0 then
        local range = buffer(entriesAt + 2, nameSize)
        name = range:string(ENC_ISO_8859_1)
        tree:add_packet_field(fileName, range, ENC_ISO_8859_1)
    end
    return string.format("file \"%s\" in %d packets", name, buffer(entriesAt, 2):uint())
end

local function addData(buffer, tree)
    local size = buffer(recordLengthAt, 1):uint()
    tree:add(id, buffer(bodyAt, 1))
    tree:add(number, buffer(bodyAt + 1, 2))
    if size > longestRecord then
        return drop(tree, "no record has " .. size .. " bytes")
    elseif buffer:len() - entriesAt < size then
        return drop(tree, "it is shorter than it claims")
    end
    local payloadSize = math.max(size - 1, 0)
    tree:add(payloadLength, buffer(recordLengthAt, 1), payloadSize):set_generated()
    if payloadSize > 0 then
        tree:add(payload, buffer(entriesAt, payloadSize))
    end
    addChecksum(buffer, entriesAt + payloadSize, tree)

    local info = string.format("id %d, packet %d", buffer(bodyAt, 1):uint(),
        buffer(bodyAt + 1, 2):uint())
    if buffer(bodyAt + 1, 2):uint() == 0 then
        return info .. ": " .. addFile(buffer, size, tree)
    end
    return info .. ": " .. payloadSize .. " bytes"
end

local function addEntries(buffer, tree)
    local count = buffer(bodyAt + 1, 2):uint()
    tree:add(id, buffer(bodyAt, 1))
    tree:add(entryCount, buffer(bodyAt + 1, 2))
    if buffer:len() - entriesAt < 2 * count then
        return drop(tree, "it is shorter than it claims")
    end
    local numbers = {}
    for i = 0, count - 1 do
        local range = buffer(entriesAt + 2 * i, 2)
        tree:add(entry, range)
        numbers[#numbers + 1] = range:uint()
    end
    addChecksum(buffer, entriesAt + 2 * count, tree)
    return string.format("id %d: %s", buffer(bodyAt, 1):uint(),
        count == 0 and "nothing" or table.concat(numbers, " "))
end

local function addAcknowledgement(buffer, tree)
    local range = buffer(recordLengthAt, 1)
    tree:add(held, range, (range:uint() - 3) % 256):set_generated()
    return addEntries(buffer, tree)
end

local function addInformation(buffer, tree)
    if buffer:len() < textAt then
        return drop(tree, "it is too short for its tag")
    end
    local size = buffer(textAt - 1, 1):uint()
    tree:add(tag, buffer(bodyAt, tagSize))
    tree:add(textLength, buffer(textAt - 1, 1))
    if buffer:len() - textAt < size then
        return drop(tree, "it is shorter than it claims")
    end
    if size > 0 then
        tree:add_packet_field(text, buffer(textAt, size), ENC_UTF_8)
    end
    addChecksum(buffer, textAt + size, tree)
    return size > 0 and buffer(textAt, size):string(ENC_UTF_8) or ""
end

local bodies = {
    [data] = addData,
    [statusRequest] = addEntries,
    [acknowledgement] = addAcknowledgement,
    [information] = addInformation,
}

local function isMarked(buffer)
    return (buffer:len() > 0 and buffer(0, 1):uint() == 0xA4)
        or (buffer:len() > 1 and buffer(1, 1):uint() == 0xD5)
end

function transfer.dissector(buffer, pinfo, root)
    if not isMarked(buffer) then
        return 0 -- no packet: left to others
    end
    pinfo.cols.protocol = "Morvane"
    local tree = root:add(transfer, buffer())
    if buffer:len() < entriesAt then
        pinfo.cols.info = drop(tree, "it is shorter than any packet")
        return buffer:len()
    end
    addHeader(buffer, tree)
    local value = buffer(kindAt, 1):uint()
    local name = kinds[value] or string.format("Kind %02x", value)
    local addBody = bodies[value]
    local info = addBody and addBody(buffer, tree) or drop(tree, "its kind is unknown")
    pinfo.cols.info = name .. ", " .. info
    tree:append_text(": " .. name .. ", " .. info)
    return buffer:len()
end

-- The TCP link ------------------------------------------------------------------------------------

local lengthSize = 4 -- bytes in front of every body
local numberSize = 8 -- bytes of an acknowledgement

local linkLength = ProtoField.uint32("morvane_tcp.length", "Length")
local body = ProtoField.bytes("morvane_tcp.body", "Body")
local keepAlive = ProtoField.bool("morvane_tcp.keep_alive", "Keep-alive")
local recordKind = ProtoField.string("morvane_tcp.kind", "Kind")
local stored = ProtoField.uint64("morvane_tcp.stored", "Stored records")
local unused = ProtoField.bytes("morvane_tcp.unused", "Bytes that the module throws away")
local tooLong = ProtoExpert.new("morvane_tcp.too_long", "The length is too large for a record",
    expert.group.MALFORMED, expert.severity.ERROR)

link.fields = { linkLength, body, keepAlive, recordKind, stored, unused }
link.experts = { tooLong }

-- A kind is not marked off from the payload behind it.
local function kindOf(bytes)
    if bytes:sub(1, 8) == "tempdb_t" then
        return "tempdb_t, or tempdb with a payload that begins with _t"
    end
    for _, known in ipairs({ "tempdb", "error" }) do
        if bytes:sub(1, #known) == known then
            return known
        end
    end
    return "unknown"
end

local function isTooLong(buffer, offset)
    return buffer(offset, lengthSize):le_uint() > link.prefs.longest_record
end

-- Of the record that begins at the offset. Behind a length that cannot be one nothing can be found
-- any more: all of it is one piece.
local function recordSize(buffer, _, offset)
    if isTooLong(buffer, offset) then
        return buffer:len() - offset
    end
    return lengthSize + buffer(offset, lengthSize):le_uint()
end

local function addBodyOf(buffer, tree)
    if buffer:len() == lengthSize then
        tree:add(recordKind, buffer(0, 0), "empty"):set_generated()
        return "empty"
    end
    local range = buffer(lengthSize)
    tree:add(body, range)
    local isKeepAlive = range:raw() == "live"
    tree:add(keepAlive, range, isKeepAlive):set_generated()
    if isKeepAlive then
        return "keep-alive"
    end
    local name = kindOf(range:raw())
    tree:add(recordKind, range, name):set_generated()
    return string.format("%s, %d bytes", name, range:len())
end

local function addRecord(buffer, pinfo, root)
    local tree = root:add(link, buffer(), "Morvane record")
    tree:add_le(linkLength, buffer(0, lengthSize))
    local info
    if isTooLong(buffer, 0) then
        tree:add_proto_expert_info(tooLong)
        info = "length too large"
    else
        info = addBodyOf(buffer, tree)
    end
    tree:append_text(": " .. info)
    pinfo.cols.info:append(" [" .. info .. "]")
    return buffer:len()
end

-- The module is the end that connects; what comes from the peer's port is the other direction.
local function isFromPeer(pinfo)
    local ports = link.prefs.ports
    return isInRange(pinfo.src_port, ports) and not isInRange(pinfo.dst_port, ports)
end

local function addNumber(buffer, pinfo, root)
    local tree = root:add(link, buffer(), "Morvane acknowledgement")
    tree:add_le(stored, buffer(0, numberSize))
    local info = "stored " .. tostring(buffer(0, numberSize):le_uint64())
    tree:append_text(": " .. info)
    pinfo.cols.info:append(" [" .. info .. "]")
    return buffer:len()
end

local function numberLength()
    return numberSize
end

local function addFromPeer(buffer, root)
    if link.prefs.acknowledgements then
        dissect_tcp_pdus(buffer, root, numberSize, numberLength, addNumber)
    else
        root:add(link, buffer()):add(unused, buffer())
    end
    return buffer:len()
end

function link.dissector(buffer, pinfo, root)
    pinfo.cols.protocol = "Morvane"
    if isFromPeer(pinfo) then
        return addFromPeer(buffer, root)
    end
    dissect_tcp_pdus(buffer, root, lengthSize, recordSize, addRecord)
    return buffer:len()
end

-- Registration ------------------------------------------------------------------------------------

registerPorts(transfer, "udp.port")
registerPorts(link, "tcp.port")
DissectorTable.get("udp.port"):add_for_decode_as(transfer)
DissectorTable.get("tcp.port"):add_for_decode_as(link)
