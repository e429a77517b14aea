-- SPDX-FileCopyrightText: 2026 The vornnet authors
-- SPDX-License-Identifier: Apache-2.0

-- Shows vornnet's traffic in Wireshark and tshark: notifications, the service handshake, typed values and
-- subscriptions, over TCP and UDP.
--
-- The bytes tell neither what they are nor where a value ends, so three things are needed to read them: a
-- port (a preference, or "Decode As"), what a stream begins with (a handle, or a service's name and CR LF),
-- and the types of the values, which only the application knows (preferences again). Whatever begins like
-- neither is left to other dissectors.

local vornnet = Proto("vornnet", "Vornnet")

local field = {
    handle = ProtoField.uint32("vornnet.handle", "Handle", base.DEC, nil, nil, "Id of the client's callback"),
    service = ProtoField.string("vornnet.service", "Service", base.UNICODE, "Name of the service asked for"),
    answer = ProtoField.uint8("vornnet.answer", "Answer", base.HEX, nil, nil, "0x2b accepts"),
    int = ProtoField.int32("vornnet.int", "Int"),
    short = ProtoField.int16("vornnet.short", "Short"),
    long = ProtoField.uint32("vornnet.long", "Long", base.DEC, nil, nil, "The 32 bits of a long that travel"),
    unused = ProtoField.bytes("vornnet.long.unused", "Unused", base.SPACE, "The ignored half of a long"),
    bool = ProtoField.uint16("vornnet.bool", "Bool"),
    length = ProtoField.int32("vornnet.string.length", "Length"),
    string = ProtoField.string("vornnet.string", "String", base.UNICODE),
    line = ProtoField.string("vornnet.line", "Line", base.UNICODE),
    token = ProtoField.int16("vornnet.token", "Token", base.DEC, {[0] = "acknowledgement", [-1] = "error"}),
    version = ProtoField.uint32("vornnet.version", "Version"),
    callback = ProtoField.string("vornnet.callback", "Callback address", base.UNICODE),
    start = ProtoField.uint32("vornnet.start", "Begins with", base.DEC,
        {[0] = "next", [1] = "last", [2] = "oldest", [3] = "position"}),
    history = ProtoField.uint64("vornnet.history", "History", base.HEX),
    number = ProtoField.uint64("vornnet.number", "Number", base.DEC, nil, nil, "Of an event, within the history"),
    first = ProtoField.uint64("vornnet.first", "First", base.DEC, nil, nil, "The first event, or the first missed"),
    next = ProtoField.uint64("vornnet.next", "Next", base.DEC, nil, nil, "The first event after a gap"),
    newest = ProtoField.uint64("vornnet.newest", "Newest", base.DEC),
    beat = ProtoField.uint32("vornnet.beat", "Beat", base.DEC, nil, nil, "In milliseconds"),
    words = ProtoField.string("vornnet.words", "Words", base.UNICODE, "What a subscriber says about itself"),
    reason = ProtoField.string("vornnet.reason", "Reason", base.UNICODE),
    frame = ProtoField.uint32("vornnet.frame", "Frame", base.DEC,
        {[1] = "event", [2] = "gap", [3] = "sign of life", [4] = "end"}),
    ending = ProtoField.uint32("vornnet.ending", "Ending", base.DEC, {[1] = "stopped", [2] = "dropped"}),
    wakeup = ProtoField.bytes("vornnet.wakeup", "Wake-up", base.SPACE, "A UDP server was closed"),
    data = ProtoField.bytes("vornnet.data", "Data", base.SPACE),
}

local function list_of(values)
    local list = {}
    for _, value in pairs(values) do
        list[#list + 1] = value
    end
    return list
end

vornnet.fields = list_of(field)

local group = expert.group
local WARN, NOTE, ERROR = expert.severity.WARN, expert.severity.NOTE, expert.severity.ERROR
local remark = {
    truncated = ProtoExpert.new("vornnet.truncated", "The value is not complete", group.MALFORMED, WARN),
    cut = ProtoExpert.new("vornnet.cut", "Not captured whole", group.UNDECODED, WARN),
    partial = ProtoExpert.new("vornnet.partial", "The value is to be continued", group.REASSEMBLE, NOTE),
    length = ProtoExpert.new("vornnet.length", "The length cannot be meant", group.MALFORMED, ERROR),
    unused = ProtoExpert.new("vornnet.unused", "Ignored bytes are not zero", group.PROTOCOL, WARN),
    zero = ProtoExpert.new("vornnet.zero", "The receiver cuts it at its zero byte", group.PROTOCOL, NOTE),
    token = ProtoExpert.new("vornnet.no_token", "No token", group.PROTOCOL, WARN),
    refused = ProtoExpert.new("vornnet.refused", "The service was refused", group.RESPONSE_CODE, NOTE),
    unread = ProtoExpert.new("vornnet.unread", "Nobody reads this", group.PROTOCOL, NOTE),
    types = ProtoExpert.new("vornnet.types", "The types are not known", group.UNDECODED, NOTE),
}
vornnet.experts = list_of(remark)

local DETECT, NOTIFICATIONS, SERVICE, VALUES, SUBSCRIPTIONS = 0, 1, 2, 3, 4
local preference = vornnet.prefs
preference.tcp_ports = Pref.range("TCP ports", "5023-5030", "Ports of sinks and services", 65535)
preference.udp_ports = Pref.range("UDP ports", "5023-5030", "Ports of sinks and services", 65535)
preference.streams = Pref.enum("Streams and datagrams carry", DETECT,
    "Notifications, values after a service's name, or values from the first byte", {
        {1, "Detect", DETECT},
        {2, "Notifications", NOTIFICATIONS},
        {3, "Service", SERVICE},
        {4, "Values", VALUES},
        {5, "Subscriptions", SUBSCRIPTIONS},
    }, false)
preference.content = Pref.string("Types of a notification's content", "long",
    "After the handle, separated by commas: int short long bool string line ack. Empty for bytes")
preference.request = Pref.string("Types of a client's values", "",
    "Over and over, separated by commas: int short long bool string line ack. Empty for bytes")
preference.reply = Pref.string("Types of a server's values", "",
    "Over and over, separated by commas: int short long bool string line ack. Empty for bytes")
preference.events = Pref.string("Types of an event's content", "",
    "Separated by commas: int short long bool string line ack. Empty for bytes")
preference.longest = Pref.uint("Longest text", 1048576, "A longer one is taken for an error (in bytes)")
preference.anywhere = Pref.bool("Look for notifications at every port", false,
    "Where no other dissector is in charge; sixteen bytes are little to tell a notification by")

-- Texts.

-- The TCP dissector's number for "as far as the stream goes", which Lua has no name for.
local UNTIL_END = 0x0ffffffe
local LONGEST_LINE = 8192
-- A line that makes a stream a service's. A client's first line that is longer belongs to somebody else.
local LONGEST_NAME = 512
local LONGEST_FRAME = 64 * 1024 * 1024
local SHOWN = 60

local function escaped(bytes)
    local text = bytes:sub(1, SHOWN):gsub('[^\32-\126]', function(byte)
        return string.format("\\x%02x", byte:byte())
    end)
    return text .. (#bytes > SHOWN and "..." or "")
end

local function counted(number, noun)
    return number .. " " .. noun .. (number == 1 and "" or "s")
end

-- Adds a remark, if there is one, with a text of its own, if there is one.
local function note(item, what, text)
    if what and text then
        item:add_proto_expert_info(what, text)
    elseif what then
        item:add_proto_expert_info(what)
    end
end

-- Types.

local SIZES = {short = 2, int = 4, long = 8, bool = 2, ack = 4}

-- The types of a preference, or nothing and the word that is none.
local function parse_types(text)
    local types = {}
    for word in text:gmatch("[^,%s]+") do
        if not SIZES[word] and word ~= "string" and word ~= "line" then
            return {}, word
        end
        types[#types + 1] = word
    end
    return types
end

-- How many bytes a value at an offset takes, or nothing and how many more are needed (nothing when only more
-- will tell), or nothing and what is wrong.
local function measure(kind, tvb, offset)
    local there = tvb:len() - offset
    if kind == "line" then
        local bytes = tvb:raw(offset, math.min(there, LONGEST_LINE))
        local stop = bytes:find("\r\n", 1, true)
        if stop then
            return stop + 1
        end
        return nil, nil, there >= LONGEST_LINE and "no CR LF within " .. LONGEST_LINE .. " bytes" or nil
    end
    local size = SIZES[kind]
    if kind == "string" then
        if there < 4 then
            return nil
        end
        local length = tvb(offset, 4):int()
        if length < 0 then
            return nil, nil, "a length of " .. length .. ", which the receiver refuses"
        end
        if length > preference.longest then
            local limit = preference.longest
            return nil, nil, "a length of " .. length .. ", more than the " .. limit .. " that are believed"
        end
        size = 4 + length
    end
    if there < size then
        return nil, size - there
    end
    return size
end

-- Adds a value to the tree and returns its text.
local add = {}

for _, kind in ipairs({"int", "short"}) do
    add[kind] = function(tree, range)
        tree:add(field[kind], range)
        return kind .. " " .. range:int()
    end
end

function add.bool(tree, range)
    local truth = range:uint() ~= 0 and "true" or "false"
    tree:add(field.bool, range):append_text(" (" .. truth .. ")")
    return "bool " .. truth
end

local function add_long(tree, range, long_field)
    local item = tree:add(long_field, range, range(0, 4):uint())
    if range(4, 4):uint() ~= 0 then
        item:add(field.unused, range(4, 4)):add_proto_expert_info(remark.unused)
    end
    return range(0, 4):uint()
end

function add.long(tree, range)
    return "long " .. add_long(tree, range, field.long)
end

function add.string(tree, range)
    local length = range:len() - 4
    local bytes = length > 0 and range:raw(4, length) or ""
    -- A field of no bytes has no range of its own.
    local item = length > 0 and tree:add_packet_field(field.string, range(4, length), ENC_UTF_8)
        or tree:add(field.string, range(0, 4), "")
    item:add(field.length, range(0, 4))
    if bytes:find("\0", 1, true) then
        item:add_proto_expert_info(remark.zero)
    end
    return 'string "' .. escaped(bytes) .. '"'
end

function add.line(tree, range)
    local length = range:len() - 2
    if length > 0 then
        tree:add_packet_field(field.line, range(0, length), ENC_UTF_8)
    else
        tree:add(field.line, range, "")
    end
    return 'line "' .. escaped(length > 0 and range:raw(0, length) or "") .. '"'
end

function add.ack(tree, range)
    local code = range(2, 2):int()
    local item = tree:add(field.token, range, code)
    if range(0, 2):int() ~= 1 or (code ~= 0 and code ~= -1) then
        item:add_proto_expert_info(remark.token)
        return "no token"
    end
    return code == 0 and "ack" or "error"
end

-- A walk through the bytes of one call: where it stands, what it has found, what it waits for.

local Walk = {}
Walk.__index = Walk

local function new_walk(tvb, pinfo, tree, is_stream)
    return setmetatable({
        tvb = tvb, pinfo = pinfo, offset = 0, texts = {},
        tree = tree:add(vornnet, tvb(0)),
        can_wait = is_stream and pinfo.can_desegment > 0 and tvb:len() == tvb:reported_len(),
    }, Walk)
end

function Walk:left()
    return self.tvb:len() - self.offset
end

function Walk:say(text)
    self.texts[#self.texts + 1] = text
end

function Walk:take(size)
    local range = self.tvb(self.offset, size)
    self.offset = self.offset + size
    return range
end

-- The rest as bytes, with a remark if there is reason for one.
function Walk:rest(why, text)
    local size = self:left()
    if size == 0 then
        return
    end
    local item = self.tree:add(field.data, self:take(size))
    note(item, why, text)
    self:say(counted(size, "byte"))
end

-- The value that begins here goes on in the next segment; `missing` is nothing when only that will tell how
-- far. A notification ends with its stream, and waits for that: so what is missing at the end can be told.
function Walk:wait(what, missing)
    local here = self:left()
    if here > 0 then
        local to_come = missing and ", " .. missing .. " to come" or ""
        local text = counted(here, "byte") .. " of a " .. what .. to_come
        note(self.tree:add(field.data, self.tvb(self.offset)), remark.partial, text)
    end
    self.pinfo.desegment_offset = self.offset
    local wanted = missing or DESEGMENT_ONE_MORE_SEGMENT
    self.pinfo.desegment_len = self.is_notification and UNTIL_END or wanted
    self.is_waiting = true
end

-- What begins here is not there as a whole: waits for the rest, or says with the text, if there is one, that it
-- is missing.
function Walk:lack(what, missing, text)
    if self.can_wait then
        self:wait(what, missing)
    else
        local was_captured = self.tvb:len() == self.tvb:reported_len()
        self:rest(was_captured and remark.truncated or remark.cut, was_captured and text or nil)
        self.is_lost = true
    end
end

-- Takes a value of the type; false when it is not there or cannot be told.
function Walk:value(kind)
    local size, missing, problem = measure(kind, self.tvb, self.offset)
    if size then
        self:say(add[kind](self.tree, self:take(size)))
        return true
    end
    if problem then
        self:rest(remark.length, problem)
        self.is_lost = true
    else
        self:lack(kind, missing, counted(self:left(), "byte") .. " of a " .. kind)
    end
    return false
end

-- Takes values of the types, from the one at `index` on; over and over, if that is wanted. Returns the index
-- of the type that is next.
function Walk:values(types, index, is_repeated)
    while self:left() > 0 and (is_repeated or index <= #types) do
        if index > #types then
            index = 1
        end
        if not self:value(types[index]) then
            break
        end
        index = index + 1
    end
    return index
end

-- Whether so many bytes are there; if not, waits for them, or tells that they are missing.
function Walk:has(size, what)
    local missing = size - self:left()
    if missing <= 0 then
        return true
    elseif size > LONGEST_FRAME then
        self:rest(remark.length, "a " .. what .. " of " .. size .. " bytes")
        self.is_lost = true
    else
        self:lack(what, missing)
    end
    return false
end

-- How many bytes a text takes that begins so far from here, its length included; 4 when that is not there.
function Walk:size_of_text(distance)
    local there = self:left() - distance
    return 4 + (there >= 4 and self.tvb(self.offset + distance, 4):uint() or 0)
end

-- Takes a number of 64 bits.
function Walk:number(number_field)
    local range = self:take(8)
    self.tree:add(number_field, range)
    return range:uint64()
end

-- Takes a text, as much of it as there is.
function Walk:text(text_field)
    local size = math.min(self:size_of_text(0), self:left())
    local range = self:take(size)
    if size <= 4 then
        self.tree:add(text_field, range, "")
        return ""
    end
    self.tree:add_packet_field(text_field, range(4, size - 4), ENC_UTF_8)
    return range:raw(4, size - 4)
end

-- A walk through a part that is there as a whole.
function Walk:part(tree, range)
    return setmetatable({tvb = range:tvb(), pinfo = self.pinfo, offset = 0, texts = {}, tree = tree}, Walk)
end

function Walk:finish(prefix)
    self.pinfo.cols.protocol = "VORNNET"
    if #self.texts == 0 then
        return
    end
    local text = table.concat(self.texts, ", ")
    local pinfo = self.pinfo
    local previous = pinfo.private["vornnet.prefix"]
    if previous then
        pinfo.cols.info:append(previous == prefix and ", " .. text or "; " .. prefix .. ": " .. text)
    else
        pinfo.cols.info = prefix .. ": " .. text
    end
    pinfo.private["vornnet.prefix"] = prefix
    self.tree:append_text(", " .. prefix .. ": " .. text)
end

-- What the first bytes say.

local function may_be_handle(tvb)
    local bytes = tvb:raw(0, math.min(tvb:len(), 8))
    if #bytes < 8 and not bytes:find("^[\0\255]") then
        return false
    end
    return not bytes:sub(5):find("[^\0]")
end

-- A client's first line: the name of a service, or the beginning of a foreign protocol. Returns true, or
-- false when it is foreign; nothing when there is more to come.
local function is_service_line(bytes)
    local stop = bytes:find("[^\32-\126]")
    if not stop then
        return #bytes > LONGEST_NAME and false or nil
    end
    if stop == #bytes and bytes:byte(stop) == 13 then
        return nil
    end
    -- A client sends nothing after the line before it is answered; and "GET / HTTP/1.1" is no service.
    return bytes:sub(stop) == "\r\n" and not bytes:find("[A-Z]+/%d%.%d\r") and stop > 1
end

local function handle(walk)
    if walk:left() < 8 then
        return walk:value("long")
    end
    walk:say("handle " .. add_long(walk.tree, walk:take(8), field.handle))
    return true
end

-- Streams. Each side of a stream is in a phase; a phase is a function that takes bytes of the walk, returns
-- what kind of message that is, and sets the phase that follows. A phase that returns nothing says that the
-- stream is somebody else's.

local phase = {}

local function next_values(walk, state, text, is_repeated)
    local types, unknown = parse_types(text)
    if #types == 0 then
        local problem = unknown and '"' .. unknown .. '" in the preferences is no type' or nil
        walk:rest(problem and remark.types, problem)
        return
    end
    state.index = walk:values(types, state.index, is_repeated)
    if walk.is_lost then
        state.phase = "rest"
    elseif walk:left() > 0 and not walk.is_waiting then
        walk:rest(remark.types, "more than the types of the preferences")
    end
end

function phase.content(walk, state)
    next_values(walk, state, preference.content, false)
    return "Content"
end

function phase.handle(walk, state)
    if not handle(walk) then
        state.phase = walk.is_lost and "rest" or "handle"
        return "Notification"
    end
    state.phase = "content"
    phase.content(walk, state)
    return "Notification"
end

local request_size, is_first_request

local LONGEST_WORDS, LONGEST_ADDRESS = 4096, 255
local FROM_POSITION = 3
local START_NAMES = {[0] = "the next event", "the last event", "the oldest event"}

-- How many bytes the request for a subscription takes; as many as are needed to tell, if there are fewer.
function request_size(walk)
    local head = 4 + walk:size_of_text(4)
    local words = head + 8 + 4 + 8 + 8
    return math.max(words + walk:size_of_text(words), words + 4)
end

-- Whether a service's client subscribes: nothing else has this shape to the last byte. Types that were set
-- tell that it is another service.
function is_first_request(walk, state)
    if not state.is_client or state.index ~= 1 then
        return false
    elseif preference.streams == SUBSCRIPTIONS then
        return true
    elseif preference.request ~= "" or preference.reply ~= "" or walk:left() < 40 then
        return false
    end
    local range = walk.tvb(walk.offset)
    local address = range(4, 4):uint()
    if range(0, 4):uint() ~= 1 or address > LONGEST_ADDRESS or request_size(walk) ~= walk:left() then
        return false
    end
    local start = range(8 + address + 8, 4):uint()
    local words = walk:left() - 40 - address
    return start <= FROM_POSITION and range(8 + address + 4, 4):uint() == 0 and words <= LONGEST_WORDS
end

function phase.values(walk, state)
    if state.is_subscription or is_first_request(walk, state) then
        return state.is_client and phase.request(walk, state) or phase.admission(walk, state)
    end
    next_values(walk, state, state.is_client and preference.request or preference.reply, true)
    return state.is_client and "Request" or "Reply"
end

-- The last of its words is what the client has to say; whatever else it sends ends the subscription.
function phase.request(walk, state)
    state.is_subscription = true
    if not walk:has(request_size(walk), "subscription") then
        state.phase = walk.is_lost and "rest" or "values"
        return "Subscription"
    end
    local tree = walk.tree
    tree:add(field.version, walk:take(4))
    local callback = walk:text(field.callback)
    local callback_id = walk:take(8)
    if callback ~= "" then
        add_long(tree, callback_id, field.handle)
        walk:say("events to " .. escaped(callback))
    end
    local start = walk:take(4)
    tree:add(field.start, start)
    local history, number = walk:number(field.history), walk:number(field.number)
    if start:uint() == FROM_POSITION then
        walk:say(string.format("after %s-%s", history:tohex(), number))
    else
        walk:say("from " .. (START_NAMES[start:uint()] or "?"))
    end
    local words = walk:text(field.words)
    if words ~= "" then
        walk:say('"' .. escaped(words) .. '"')
    end
    state.phase = "violation"
    return "Subscription"
end

function phase.violation(walk)
    walk:rest(remark.unread, "it ends the subscription")
    return "Data"
end

function phase.admission(walk, state)
    state.phase = "admission"
    if not walk:has(4, "answer") then
        state.phase = walk.is_lost and "rest" or "admission"
        return "Subscription"
    end
    local is_admitted = walk.tvb(walk.offset + 2, 2):int() == 0
    local size = is_admitted and 4 + 28 or 4 + walk:size_of_text(4)
    if not walk:has(size, "answer") then
        state.phase = walk.is_lost and "rest" or "admission"
        return "Subscription"
    end
    add.ack(walk.tree, walk:take(4))
    if not is_admitted then
        walk:say('refused: "' .. escaped(walk:text(field.reason)) .. '"')
        state.phase = "rest"
        return "Subscription"
    end
    local history = walk:number(field.history)
    local first = walk:number(field.first)
    walk:number(field.newest)
    walk.tree:add(field.beat, walk:take(4))
    walk:say(string.format("admitted, history %s from event %s", history:tohex(), first))
    state.phase = "frames"
    phase.frames(walk, state)
    return "Subscription"
end

local frame = {}

function frame.event(walk, rest)
    local number = rest:number(field.number)
    local types = parse_types(preference.events)
    if #types > 0 then
        rest:values(types, 1, false)
    end
    if rest:left() > 0 and not rest.is_lost then
        rest:rest(#types > 0 and remark.types or nil, #types > 0 and "more than the types of the preferences" or nil)
    end
    local content = table.concat(rest.texts, ", ")
    walk:say("event " .. tostring(number) .. (content ~= "" and " (" .. content .. ")" or ""))
end

function frame.gap(walk, rest)
    rest:number(field.history)
    local first, following = rest:number(field.first), rest:number(field.next)
    local missed = first == UInt64(0) and "of another history" or "from " .. tostring(first)
    walk:say("gap " .. missed .. ", next " .. tostring(following))
end

function frame.sign(walk, rest)
    walk:say("sign of life, newest " .. tostring(rest:number(field.newest)))
end

function frame.ending(walk, rest)
    rest.tree:add(field.ending, rest:take(4))
    walk:say('end "' .. escaped(rest:text(field.reason)) .. '"')
end

local FRAMES = {
    {read = frame.event, least = 8}, {read = frame.gap, least = 24},
    {read = frame.sign, least = 8}, {read = frame.ending, least = 8},
}

function phase.frames(walk, state)
    while walk:left() > 0 and not walk.is_waiting and not walk.is_lost do
        local size = walk:left() < 8 and 8 or 8 + walk.tvb(walk.offset + 4, 4):uint()
        if walk:has(size, "frame") then
            local range = walk:take(size)
            local kind = FRAMES[range(0, 4):uint()]
            local tree = walk.tree:add(field.frame, range, range(0, 4):uint())
            if kind and size - 8 >= kind.least then
                kind.read(walk, walk:part(tree, range(8)))
            else
                walk:say(kind and "frame cut" or "frame of kind " .. range(0, 4):uint())
            end
        end
    end
    if walk.is_lost then
        state.phase = "rest"
    end
    return "Events"
end

function phase.service(walk, state)
    local size = measure("line", walk.tvb, walk.offset)
    if not size then
        walk:value("line")
        state.phase = walk.is_lost and "rest" or "service"
        return "Service"
    end
    local name = walk:take(size)
    walk.tree:add_packet_field(field.service, name(0, size - 2), ENC_UTF_8)
    walk:say(escaped(name:raw(0, size - 2)))
    state.phase = "values"
    if walk:left() > 0 then
        phase.values(walk, state)
    end
    return "Service"
end

function phase.answer(walk, state)
    local bytes = walk.tvb:raw(0)
    -- Other protocols answer a line with a line.
    local is_line = bytes:byte(1) ~= 43 or bytes:find("^[\32-\126]*\r\n$")
    if preference.streams == DETECT and #bytes > 1 and is_line then
        return nil
    end
    local answer = walk:take(1)
    local item = walk.tree:add(field.answer, answer)
    if answer:uint() == 43 then
        item:append_text(" (accepted)")
        walk:say("accepted")
        state.phase = "values"
        if walk:left() > 0 then
            phase.values(walk, state)
        end
    else
        item:append_text(" (refused)"):add_proto_expert_info(remark.refused)
        walk:say("refused")
        state.phase = "rest"
        walk:rest()
    end
    return "Service"
end

function phase.rest(walk)
    walk:rest()
    return "Data"
end

function phase.unread(walk)
    walk:rest(remark.unread, "a sink does not answer")
    return "Data"
end

-- The phases with which both sides of a stream begin; nothing for a foreign one, false when more will tell.
local function beginning(tvb, is_client)
    local chosen = preference.streams
    if chosen == NOTIFICATIONS then
        return "handle", "unread"
    elseif chosen == SERVICE or chosen == SUBSCRIPTIONS then
        return "service", "answer"
    elseif chosen == VALUES then
        return "values", "values"
    elseif not is_client then
        return nil
    elseif may_be_handle(tvb) then
        -- Many a protocol begins with some zeros; it is the last four of a handle that tell.
        if tvb:len() < 8 then
            return false
        end
        return "handle", "unread"
    end
    local is_line = is_service_line(tvb:raw(0, math.min(tvb:len(), LONGEST_NAME + 3)))
    if is_line == nil then
        return false
    end
    if is_line then
        return "service", "answer"
    end
    return nil
end

-- By the stream: who the client is, and where both sides stand.
local streams = {}
-- By frame and call, where the side stood before: frames are dissected again in any order.
local stands = {}

function vornnet.init()
    streams = {}
    stands = {}
end

local function end_of(address, port)
    return tostring(address) .. " " .. port
end

local function is_from_client(stream, pinfo)
    local from = end_of(pinfo.src, pinfo.src_port)
    if not stream.client then
        local is_server = pinfo.match_uint == pinfo.src_port and pinfo.src_port ~= pinfo.dst_port
        stream.client = is_server and end_of(pinfo.dst, pinfo.dst_port) or from
    end
    return stream.client == from
end

local stream_number = Field.new("tcp.stream")
-- For how long a host keeps the ports of a connection from being used again.
local TIME_WAIT = 60

-- The number is only there when the tree is made, which the first pass through a capture may do without; both
-- ends have to do then, and a new connection between the same ports is told by the time.
local function current_stream(pinfo)
    local all = {stream_number()}
    local from, to = end_of(pinfo.src, pinfo.src_port), end_of(pinfo.dst, pinfo.dst_port)
    local key = #all > 0 and all[#all].value or from < to and from .. " " .. to or to .. " " .. from
    local stream = streams[key]
    if stream and #all == 0 and not pinfo.visited and stream.is_notification
        and pinfo.abs_ts - stream.time > TIME_WAIT then
        stream = nil
    end
    stream = stream or {client_side = {index = 1}, server_side = {index = 1}}
    stream.time = pinfo.abs_ts
    streams[key] = stream
    return stream
end

-- Which call for this frame it is: a segment may end one message and hold others. A call that has to be made
-- again with more bytes does not count, for the second time the frame is dissected it is not made.
local function call_of(pinfo)
    return pinfo.number .. "." .. (pinfo.private["vornnet.calls"] or "")
end

local function count_call(pinfo)
    pinfo.private["vornnet.calls"] = (pinfo.private["vornnet.calls"] or "") .. "+"
end

-- What a call has to know, kept apart from the stream, which goes on.
local function copy(state)
    return {
        phase = state.phase, index = state.index, is_client = state.is_client, is_at_end = state.is_at_end,
        is_subscription = state.is_subscription,
    }
end

-- Decides what a stream is by its first bytes. Returns false when they do not suffice.
local function begin(stream, tvb, pinfo, is_client)
    local client, server = beginning(tvb, is_client)
    if client == false and pinfo.can_desegment > 0 then
        return false
    end
    stream.is_foreign = not client
    stream.is_notification = client == "handle"
    stream.client_side = {phase = client, index = 1, is_client = true}
    stream.server_side = {phase = server, index = 1, is_client = false}
    stream.has_begun = true
    return true
end

-- Where a side stood before this call; nothing when the stream is somebody else's, false when it takes more
-- bytes to tell.
local function stand_before(call, tvb, pinfo)
    if pinfo.visited then
        return stands[call]
    end
    local stream = current_stream(pinfo)
    local is_client = is_from_client(stream, pinfo)
    if not stream.has_begun and not begin(stream, tvb, pinfo, is_client) then
        stands[call] = false
    elseif not stream.is_foreign then
        local side = is_client and stream.client_side or stream.server_side
        stands[call] = copy(side)
        stands[call].is_subscription = stream.is_subscription
        stands[call].side = side
        stands[call].stream = stream
    end
    return stands[call]
end

local function dissect_segment(tvb, pinfo, tree)
    local call = call_of(pinfo)
    local stand = stand_before(call, tvb, pinfo)
    if stand == nil then
        return 0
    elseif stand == false then
        pinfo.desegment_offset = 0
        pinfo.desegment_len = DESEGMENT_ONE_MORE_SEGMENT
        return tvb:len()
    end
    local state = copy(stand)
    local walk = new_walk(tvb, pinfo, tree, true)
    walk.is_notification = state.phase == "handle" or state.phase == "content"
    walk.can_wait = walk.can_wait and not state.is_at_end
    local prefix = phase[state.phase](walk, state)
    if not prefix then
        stand.stream.is_foreign = true
        stands[call] = nil
        return 0
    end
    walk:finish(prefix)
    if walk.offset > 0 then
        count_call(pinfo)
    end
    if not pinfo.visited then
        stand.side.phase, stand.side.index = state.phase, state.index
        stand.stream.is_subscription = state.is_subscription
        stand.side.is_at_end = walk.is_waiting and walk.is_notification
    end
    return tvb:len()
end

-- Datagrams.

local function is_wakeup(tvb, pinfo)
    return tvb:raw() == "\0\1" and tostring(pinfo.dst):find("^127%.")
end

local function dissect_datagram(tvb, pinfo, tree)
    local chosen = preference.streams
    if chosen == DETECT and not may_be_handle(tvb) and not is_wakeup(tvb, pinfo) then
        return 0
    end
    local walk = new_walk(tvb, pinfo, tree, false)
    local state = {index = 1, is_client = true}
    if is_wakeup(tvb, pinfo) and chosen ~= VALUES then
        walk.tree:add(field.wakeup, walk:take(2))
        walk:say("wake-up")
        walk:finish("Server closed")
    elseif chosen == SERVICE or chosen == VALUES then
        walk:finish(phase.values(walk, state))
    else
        walk:finish(phase.handle(walk, state))
    end
    return tvb:len()
end

local TCP = 2

function vornnet.dissector(tvb, pinfo, tree)
    if tvb:len() == 0 then
        return 0
    end
    if pinfo.port_type == TCP then
        return dissect_segment(tvb, pinfo, tree)
    end
    return dissect_datagram(tvb, pinfo, tree)
end

-- Other ports: only what has the whole shape of a notification, and small numbers.
local function find_anywhere(tvb, pinfo, tree)
    if not preference.anywhere or tvb:len() ~= 16 or tvb:len() ~= tvb:reported_len() then
        return false
    end
    if not tvb:raw():find("^\0\0..\0\0\0\0\0\0..\0\0\0\0$") then
        return false
    end
    pinfo.conversation = vornnet
    vornnet.dissector(tvb, pinfo, tree)
    return true
end

vornnet:register_heuristic("tcp", find_anywhere)
vornnet:register_heuristic("udp", find_anywhere)

local tcp_table, udp_table = DissectorTable.get("tcp.port"), DissectorTable.get("udp.port")
local tcp_ports, udp_ports = preference.tcp_ports, preference.udp_ports

local function use_port(tables, old, new)
    if old ~= "" then
        tables:remove(old, vornnet)
    end
    if new ~= "" then
        tables:add(new, vornnet)
    end
end

function vornnet.prefs_changed()
    use_port(tcp_table, tcp_ports, preference.tcp_ports)
    use_port(udp_table, udp_ports, preference.udp_ports)
    tcp_ports, udp_ports = preference.tcp_ports, preference.udp_ports
end

use_port(tcp_table, "", tcp_ports)
use_port(udp_table, "", udp_ports)
tcp_table:add_for_decode_as(vornnet)
udp_table:add_for_decode_as(vornnet)
