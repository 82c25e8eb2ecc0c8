-- Wireshark and tshark show the frames of libvelahost's TCP transport (docs/wire-format.md).
--
-- A stream has no mark to know it by, so nothing is dissected until the ports are named: by "Decode
-- As", or in the preference velahost.ports (tshark -o velahost.ports:4711 or -d tcp.port==4711,velahost).

local HEADER = 8         -- bytes before the payload
local LONGEST = 2048     -- the server's buffer, and so the longest frame
local CATEGORIES = 20    -- 0 to 19 have handlers

local velahost = Proto("velahost", "libvelahost message frames")

local fields = {
    length = ProtoField.uint32("velahost.length", "Frame length", base.DEC, nil, nil,
        "Of the whole frame: 8 and the payload's length"),
    connection = ProtoField.uint16("velahost.connection", "Connection", base.DEC, nil, nil,
        "Ignored by the server; in its own frames, whatever its handler left there"),
    category = ProtoField.uint16("velahost.category", "Category", base.DEC, nil, nil,
        "0 to 19 choose the server's handler"),
    payload_length = ProtoField.uint32("velahost.payload_length", "Payload length", base.DEC),
    payload = ProtoField.bytes("velahost.payload", "Payload"),
    lost = ProtoField.bytes("velahost.lost", "Not followed", base.NONE,
        "Where a frame begins is not known any more"),
}
velahost.fields = fields

local experts = {
    short = ProtoExpert.new("velahost.length.short",
        "Length below 8: the server ends the connection as soon as a byte follows these 8",
        expert.group.MALFORMED, expert.severity.ERROR),
    long = ProtoExpert.new("velahost.length.long",
        "Length above 2048: the server ends the connection when its buffer is full",
        expert.group.MALFORMED, expert.severity.ERROR),
    lost = ProtoExpert.new("velahost.lost.behind",
        "Where a frame begins is not known any more in this direction",
        expert.group.SEQUENCE, expert.severity.WARN),
    part = ProtoExpert.new("velahost.part",
        "Only a part: captured so or TCP does not put streams together",
        expert.group.REASSEMBLE, expert.severity.WARN),
    category = ProtoExpert.new("velahost.category.unhandled",
        "Category above 19: no handler can be registered for it",
        expert.group.PROTOCOL, expert.severity.WARN),
    empty = ProtoExpert.new("velahost.empty",
        "Empty frame: the server dispatches it only when at least one byte follows",
        expert.group.PROTOCOL, expert.severity.NOTE),
}
velahost.experts = experts

velahost.prefs.ports = Pref.range("TCP ports", "", "The ports that servers listen on", 65535)

local stream_of = Field.new("tcp.stream")

-- The number of the packet behind which a direction of a stream can't be followed.
local ended = {}

function velahost.init()
    ended = {}
end

local function direction(pinfo)
    return string.format("%s %s:%d", tostring(stream_of()), tostring(pinfo.src), pinfo.src_port)
end

local function lose_track(pinfo)
    local key = direction(pinfo)
    ended[key] = math.min(ended[key] or pinfo.number, pinfo.number)
end

local function has_lost_track(pinfo)
    local packet = ended[direction(pinfo)]
    return packet ~= nil and packet < pinfo.number
end

local function show_lost(range, tree)
    tree:add(fields.lost, range):add_proto_expert_info(experts.lost)
end

-- What is there of a frame whose rest will not come.
local function show_part(range, pinfo, root)
    lose_track(pinfo)
    root:add(velahost, range, "libvelahost frame, a part"):add_proto_expert_info(experts.part)
end

-- One whole frame.
local function show_frame(range, root)
    local category = range(6, 2):le_uint()
    local payload_length = range:len() - HEADER
    local tree = root:add(velahost, range, string.format(
        "libvelahost frame, category %d, %d bytes of payload", category, payload_length))
    tree:add_le(fields.length, range(0, 4))
    tree:add_le(fields.connection, range(4, 2))
    local category_item = tree:add_le(fields.category, range(6, 2))
    if category >= CATEGORIES then
        category_item:add_proto_expert_info(experts.category)
    end
    tree:add(fields.payload_length, payload_length):set_generated()
    if payload_length > 0 then
        tree:add(fields.payload, range(HEADER))
    else
        tree:add_proto_expert_info(experts.empty)
    end
    return string.format("category %d (%d)", category, payload_length)
end

-- The head of a frame with a length that no frame has, and all that follows.
local function show_malformed(range, pinfo, root)
    lose_track(pinfo)
    local length = range(0, 4):le_uint()
    local tree = root:add(velahost, range, "libvelahost frame, malformed")
    tree:add_le(fields.length, range(0, 4)):add_proto_expert_info(
        length < HEADER and experts.short or experts.long)
    if range:len() >= HEADER then
        tree:add_le(fields.connection, range(4, 2))
        tree:add_le(fields.category, range(6, 2))
    end
    if range:len() > HEADER then
        show_lost(range(HEADER), tree)
    end
    return string.format("malformed length %d", length)
end

-- All that the packet, or what TCP has put together for it, holds.
local function show_frames(tvb, pinfo, root)
    local shown = {}
    local offset = 0
    while offset < tvb:len() do
        local left = tvb:len() - offset
        local length = left >= 4 and tvb(offset, 4):le_uint() or nil
        if length ~= nil and (length < HEADER or length > LONGEST) then
            table.insert(shown, show_malformed(tvb(offset), pinfo, root))
            offset = tvb:len()
        elseif length ~= nil and length <= left then
            table.insert(shown, show_frame(tvb(offset, length), root))
            offset = offset + length
        else
            -- Comes again from here, together with the segments that hold the rest.
            pinfo.desegment_offset = offset
            pinfo.desegment_len = length == nil and DESEGMENT_ONE_MORE_SEGMENT or length - left
            if pinfo.can_desegment == 0 then
                show_part(tvb(offset), pinfo, root)
            end
            offset = tvb:len()
        end
    end
    return shown
end

function velahost.dissector(tvb, pinfo, root)
    pinfo.cols.protocol = "velahost"
    if has_lost_track(pinfo) then
        show_lost(tvb(), root:add(velahost, tvb()))
        pinfo.cols.info = "not followed"
    elseif tvb:len() ~= tvb:reported_len() then
        show_part(tvb(), pinfo, root)
    else
        local shown = show_frames(tvb, pinfo, root)
        if #shown > 0 then
            pinfo.cols.info = table.concat(shown, ", ")
        end
    end
    return tvb:len()
end

local tcp_ports = DissectorTable.get("tcp.port")
tcp_ports:add_for_decode_as(velahost)

local registered = ""
function velahost.prefs_changed()
    if registered ~= "" then
        tcp_ports:remove(registered, velahost)
    end
    registered = velahost.prefs.ports
    if registered ~= "" then
        tcp_ports:add(registered, velahost)
    end
end
