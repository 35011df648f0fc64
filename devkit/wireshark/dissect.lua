-- Dissects the captures of sccd-dev and sccctl: link type USER0, each packet a header of 12 bytes and one
-- message. make_dissector puts the tables "names", "fields" and "messages" before this text.

local scc = Proto("scc", "Security-control daemon")

local packet_fields = {
    version = ProtoField.uint8("scc.packet.version", "version"),
    direction = ProtoField.uint8("scc.packet.direction", "direction", base.DEC, {[0] = "to the daemon", [1] = "from the daemon"}),
    socket = ProtoField.uint8("scc.packet.socket", "socket", base.DEC, {[0] = "new", [1] = "sync", [2] = "async"}),
    app = ProtoField.uint32("scc.packet.app", "app"),
    pid = ProtoField.uint32("scc.packet.pid", "pid"),
    len = ProtoField.uint32("scc.message.len", "len"),
    ver = ProtoField.uint8("scc.message.ver", "ver"),
    num = ProtoField.uint16("scc.message.num", "num"),
    item = ProtoField.none("scc.item", "item"),
    element = ProtoField.none("scc.element", "element"),
    item_len = ProtoField.uint32("scc.item.len", "len"),
    sub_id = ProtoField.uint16("scc.item.sub_id", "sub_id"),
    type = ProtoField.uint16("scc.item.type", "type"),
    name = ProtoField.string("scc.item.name", "name"),
    value = ProtoField.bytes("scc.item.value", "value"),
}
local malformed = ProtoExpert.new("scc.malformed", "malformed message", expert.group.MALFORMED, expert.severity.ERROR)

local all_fields = {}
for _, field in pairs(packet_fields) do all_fields[#all_fields + 1] = field end
for _, field in ipairs(fields) do all_fields[#all_fields + 1] = field end
scc.fields = all_fields
scc.experts = {malformed}

local header_bytes, message_header_bytes, item_header_bytes = 12, 8, 8
local service_app_id = 16
local socket_names = {[0] = "new", [1] = "sync", [2] = "async"}

-- Lua's own bit operations are not in every version; VLAN v is bit v % 8 of byte v / 8.
local function vlans_of(range)
    local set = {}
    for index = 0, range:len() - 1 do
        local byte = range(index, 1):uint()
        for bit = 0, 7 do
            if byte % 2 == 1 then set[#set + 1] = index * 8 + bit end
            byte = math.floor(byte / 2)
        end
    end
    return table.concat(set, ",")
end

local function key_text(range)
    return string.format("%d/%d/%d/%d", range(0, 4):le_uint(), range(4, 4):le_uint(), range(8, 4):le_uint(), range(12, 4):le_uint())
end

-- How each kind of field is added. `parts` are the ProtoFields of the field: one, or several for addresses and keys.
local add_kind = {
    number = function(tree, parts, range) tree:add_le(parts[1], range) end,
    plain = function(tree, parts, range) tree:add(parts[1], range) end,
    ipv4 = function(tree, parts, range) tree:add(parts[1], range) end,
    text = function(tree, parts, range) tree:add(parts[1], range, range:stringz()) end,
    vlans = function(tree, parts, range) tree:add(parts[1], range, vlans_of(range)) end,
    key = function(tree, parts, range)
        local below = tree:add(parts[1], range, key_text(range))
        for part = 2, 5 do below:add_le(parts[part], range((part - 2) * 4, 4)) end
    end,
    address = function(tree, parts, range, value, field)
        local family = value:len() >= field.family_at + 4 and value(field.family_at, 4):le_uint() or 0
        if family == 3 or family == 4 then
            tree:add(parts[2], range)
        else
            tree:add(parts[1], range(0, 4))
        end
    end,
}

local function add_fields(tree, list, value)
    for _, field in ipairs(list) do
        local left = value:len() - field.offset
        local bytes = field.bytes ~= 0 and field.bytes or left
        if bytes > 0 and bytes <= left then
            add_kind[field.kind](tree, field.parts, value(field.offset, bytes), value, field)
        end
    end
end

local function layout_of(message, value_bytes)
    for _, layout in ipairs(message.layouts) do
        if layout.only_bytes == value_bytes then return layout end
    end
    return message.layouts[#message.layouts]
end

local function add_value(tree, message, value)
    local layout = layout_of(message, value:len())
    add_fields(tree, layout.fields, value)
    local elements = layout.elements
    if not elements then return end
    local offset, index = elements.offset, 0
    while offset + elements.bytes <= value:len() do
        local range = value(offset, elements.bytes)
        local below = tree:add(packet_fields.element, range)
        below:set_text(string.format("%s[%d]", elements.name, index))
        add_fields(below, elements.fields, range:tvb():range())
        offset, index = offset + elements.bytes, index + 1
    end
end

-- The service's items have their own table, and it also knows what every client knows.
local function message_of(from_daemon, app, number)
    local own = from_daemon and messages.to_client or messages.request
    if app ~= service_app_id then return own[number] end
    local service = from_daemon and messages.operation or messages.report
    return service[number] or own[number]
end

local function add_item(tree, range, from_daemon, app)
    local len, number = range(0, 4):le_uint(), range(6, 2):le_uint()
    local message = message_of(from_daemon, app, number)
    local name = message and message.name or "unknown"
    local below = tree:add(packet_fields.item, range)
    below:set_text(string.format("%d %s", number, name))
    below:add_le(packet_fields.item_len, range(0, 4))
    below:add_le(packet_fields.sub_id, range(4, 2))
    below:add_le(packet_fields.type, range(6, 2))
    below:add(packet_fields.name, range(6, 2), name)
    if len > 0 then
        local value = range(item_header_bytes, len)
        below:add(packet_fields.value, value)
        if message then add_value(below, message, value:tvb():range()) end
    end
    return name
end

local function add_message(tree, message, from_daemon, app)
    local function broken(why)
        tree:add_proto_expert_info(malformed, why)
        return {"malformed: " .. why}
    end
    if message:len() < message_header_bytes then return broken("no room for a header") end
    local len, count = message(0, 4):le_uint(), message(5, 2):le_uint()
    tree:add_le(packet_fields.len, message(0, 4))
    tree:add(packet_fields.ver, message(4, 1))
    tree:add_le(packet_fields.num, message(5, 2))
    if len ~= message:len() then return broken("the length is not the message's") end
    local shown, offset = {}, message_header_bytes
    for _ = 1, count do
        if message:len() - offset < item_header_bytes then return broken("an item header does not fit") end
        local item_bytes = item_header_bytes + message(offset, 4):le_uint()
        if item_bytes > message:len() - offset then return broken("an item's value does not fit") end
        shown[#shown + 1] = add_item(tree, message(offset, item_bytes), from_daemon, app)
        offset = offset + item_bytes
    end
    if offset ~= message:len() then return broken("bytes are left after the last item") end
    return shown
end

function scc.dissector(tvb, info, root)
    if tvb:len() < header_bytes then return 0 end
    info.cols.protocol = "SCC"
    local tree = root:add(scc, tvb())
    tree:add(packet_fields.version, tvb(0, 1))
    tree:add(packet_fields.direction, tvb(1, 1))
    tree:add(packet_fields.socket, tvb(2, 1))
    tree:add_le(packet_fields.app, tvb(4, 4))
    tree:add_le(packet_fields.pid, tvb(8, 4))
    local from_daemon, app = tvb(1, 1):uint() == 1, tvb(4, 4):le_uint()
    local peer = string.format("app %d (pid %d)", app, tvb(8, 4):le_uint())
    info.cols.src = from_daemon and "sccd" or peer
    info.cols.dst = from_daemon and peer or "sccd"
    local shown = {"no message"}
    if tvb:len() > header_bytes then shown = add_message(tree, tvb(header_bytes):tvb():range(), from_daemon, app) end
    info.cols.info = string.format("%s %s", socket_names[tvb(2, 1):uint()] or "?", table.concat(shown, ", "))
    return tvb:len()
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, scc)
