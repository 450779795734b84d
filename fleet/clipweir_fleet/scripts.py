"""The steps of a page's life as scripts that Redis runs as one.

Every key of the fleet begins with the same text, which is the one key that a script is given: the
fleet keeps to one server, where that is enough.

    page:ID      hash    all that is known of a page
    state:NAME   zset    pages in that state, by the time they came to it
    due          zset    pages for which a message is to be sent, by the time of it
    slots:HOST   zset    pages that take a place of that host, by the time the place lapses
    line:HOST    zset    pages that wait for a place, in the order of their submit
    next:HOST    string  the time before which no page of the host begins
    hosts        set     hosts with a line
    ended        zset    pages that ended in the last ten minutes
    totals       hash    ends by class, retries, losses; only grows

A page is queued, parked (its host is busy), running, waiting (before another run), done or failed.
A page that runs is due when its lease ends, so one whose worker died is sent again; a page that is
queued is due until its message is in the broker's hands.
"""

PRELUDE = """
local root = KEYS[1]
local clock = redis.call('TIME')
local now = clock[1] + clock[2] / 1000000
local function page(id) return root .. 'page:' .. id end
local function get(id, field) return redis.call('HGET', page(id), field) end
local function due(id, time) redis.call('ZADD', root .. 'due', string.format('%.6f', time), id) end
local function undue(id) redis.call('ZREM', root .. 'due', id) end
local function move(id, state)
    local old = get(id, 'state')
    if old then redis.call('ZREM', root .. 'state:' .. old, id) end
    redis.call('ZADD', root .. 'state:' .. state, now, id)
    redis.call('HSET', page(id), 'state', state, 'changed', now)
end
local function over(state) return state == 'done' or state == 'failed' end
local function count(what) redis.call('HINCRBY', root .. 'totals', what, 1) end
local function release(id)
    local host = get(id, 'host')
    redis.call('ZREM', root .. 'slots:' .. host, id)
    redis.call('ZREM', root .. 'line:' .. host, id)
    redis.call('HDEL', page(id), 'token', 'leaseEnd', 'worker', 'woken', 'notBefore')
end
local function finish(id, state, class, keep)
    release(id)
    undue(id)
    move(id, state)
    redis.call('HSET', page(id), 'class', class)
    redis.call('EXPIRE', page(id), keep)
    count('ended:' .. class)
    redis.call('ZADD', root .. 'ended', now, id)
end
-- The worker of a page has died; whether the page is given up for it.
local function lose(id, most, keep)
    count('losses')
    local losses = redis.call('HINCRBY', page(id), 'losses', 1)
    redis.call('HSET', page(id), 'lost', get(id, 'token') or '')
    release(id)
    if losses > tonumber(most) then
        finish(id, 'failed', 'engineLost', keep)
        return true
    end
    move(id, 'queued')
    redis.call('HSET', page(id), 'woken', 1)
    return false
end
"""

# id url options host again -> what happened, and the state of the page
SUBMIT = """
local id = ARGV[1]
local state = get(id, 'state')
if state and not (state == 'failed' and ARGV[5] == '1') then return {'joined', state} end
local order = redis.call('INCR', root .. 'order')
redis.call('DEL', page(id))
if state then redis.call('ZREM', root .. 'state:' .. state, id) end
redis.call('HSET', page(id), 'url', ARGV[2], 'options', ARGV[3], 'host', ARGV[4], 'order', order,
    'submitted', now, 'retries', 0, 'losses', 0)
move(id, 'queued')
due(id, now)
return {'new', 'queued'}
"""

# most hold maxLosses keep -> id, claim, urgent ...: the pages to send a message for
CLAIM = """
local claimed = {}
local claim = string.format('%.6f', now + ARGV[2])
for _, id in ipairs(redis.call('ZRANGEBYSCORE', root .. 'due', '-inf', now, 'LIMIT', 0, ARGV[1])) do
    local state = get(id, 'state')
    local leaseEnd = tonumber(get(id, 'leaseEnd') or 0)
    if not state or over(state) or state == 'parked' then
        undue(id)
    elseif state == 'running' and leaseEnd > now then
        due(id, leaseEnd)
    elseif state ~= 'running' or not lose(id, ARGV[3], ARGV[4]) then
        due(id, claim)
        local urgent = get(id, 'woken') or tonumber(get(id, 'retries')) > 0
        table.insert(claimed, id)
        table.insert(claimed, claim)
        table.insert(claimed, urgent and 1 or 0)
    end
end
return claimed
"""

# id claim: the message of the page is in the broker's hands
SENT = """
local score = redis.call('ZSCORE', root .. 'due', ARGV[1])
if score and tonumber(score) == tonumber(ARGV[2]) then undue(ARGV[1]) end
"""

# id token worker lease limit pause keep maxLosses -> begun, over, held, early or parked
BEGIN = """
local id, token = ARGV[1], ARGV[2]
local lease, limit, pause = tonumber(ARGV[4]), tonumber(ARGV[5]), tonumber(ARGV[6])
local state = get(id, 'state')
if not state or over(state) then return 'over' end
local leaseEnd = tonumber(get(id, 'leaseEnd') or 0)
if state == 'running' and leaseEnd > now and get(id, 'token') ~= token then
    due(id, leaseEnd)
    return 'held'
end
if state == 'running' and get(id, 'token') ~= token and lose(id, ARGV[8], ARGV[7]) then return 'over' end
if get(id, 'stop') then
    finish(id, 'failed', 'stopped', ARGV[7])
    return 'over'
end
local notBefore = tonumber(get(id, 'notBefore') or 0)
if state == 'waiting' and notBefore > now + 1 then
    due(id, notBefore)
    return 'early'
end
local host = get(id, 'host')
local slots, line = root .. 'slots:' .. host, root .. 'line:' .. host
redis.call('ZREMRANGEBYSCORE', slots, '-inf', now)
if not redis.call('ZSCORE', slots, id) then
    local next = tonumber(redis.call('GET', root .. 'next:' .. host) or 0)
    if redis.call('ZCARD', slots) >= limit or next > now or redis.call('EXISTS', line) == 1 then
        redis.call('ZADD', line, get(id, 'order'), id)
        redis.call('SADD', root .. 'hosts', host)
        undue(id)
        move(id, 'parked')
        return 'parked'
    end
    if pause > 0 then
        redis.call('SET', root .. 'next:' .. host, now + pause, 'PX', math.ceil(pause * 1000) + 1)
    end
end
redis.call('ZADD', slots, now + lease, id)
move(id, 'running')
redis.call('HDEL', page(id), 'notBefore', 'woken')
redis.call('HSET', page(id), 'token', token, 'worker', ARGV[3], 'leaseEnd', now + lease)
redis.call('HINCRBY', page(id), 'runs', 1)
due(id, now + lease)
return 'begun'
"""

# id token worker lease progress -> ok, stop or lost
BEAT = """
local id, token, lease = ARGV[1], ARGV[2], tonumber(ARGV[4])
local holder, state = get(id, 'token'), get(id, 'state')
if holder then
    if holder ~= token then return 'lost' end
else
    -- A server that was killed may have forgotten who took the page last.
    if not state or over(state) or get(id, 'lost') == token then return 'lost' end
    release(id)
    move(id, 'running')
    redis.call('HSET', page(id), 'token', token, 'worker', ARGV[3])
    redis.call('HINCRBY', page(id), 'runs', 1)
end
redis.call('HSET', page(id), 'leaseEnd', now + lease, 'progress', ARGV[5])
redis.call('ZADD', root .. 'slots:' .. get(id, 'host'), now + lease, id)
due(id, now + lease)
if get(id, 'stop') then return 'stop' end
return 'ok'
"""

# id token pause class -> the number of the retry, or 0 if the page is another worker's
RETRY = """
local id, pause = ARGV[1], tonumber(ARGV[3])
if get(id, 'token') ~= ARGV[2] then return 0 end
release(id)
move(id, 'waiting')
redis.call('HSET', page(id), 'notBefore', now + pause, 'class', ARGV[4])
count('retries')
-- The broker brings the page back in time. Should its message be lost, this does later.
due(id, now + pause + 30)
return redis.call('HINCRBY', page(id), 'retries', 1)
"""

# id token: the worker stops, and another may go on
GIVE_BACK = """
local id = ARGV[1]
if get(id, 'token') ~= ARGV[2] then return 0 end
release(id)
move(id, 'queued')
redis.call('HSET', page(id), 'woken', 1)
due(id, now)
return 1
"""

# id token state class keep result -> 1, or 0 if the page is another worker's
FINISH = """
local id = ARGV[1]
local state = get(id, 'state')
if not state or over(state) then return 0 end
-- A result that is in its place is the page's, whoever put it there.
if ARGV[3] ~= 'done' and get(id, 'token') ~= ARGV[2] then return 0 end
finish(id, ARGV[3], ARGV[4], ARGV[5])
if ARGV[6] ~= '' then redis.call('HSET', page(id), 'result', ARGV[6]) end
return 1
"""

# id keep -> the state that the page was in, or false
STOP = """
local id = ARGV[1]
local state = get(id, 'state')
if not state or over(state) then return state end
redis.call('HSET', page(id), 'stop', 1)
if state ~= 'running' then finish(id, 'failed', 'stopped', ARGV[2]) end
return state
"""

# host seconds: no page of the host begins for so long
HOLD = """
local key, hold = root .. 'next:' .. ARGV[1], tonumber(ARGV[2])
if tonumber(redis.call('GET', key) or 0) < now + hold then
    redis.call('SET', key, now + hold, 'PX', math.ceil(hold * 1000) + 1)
end
"""

# limit pause reserve keep -> how many pages got a place; forgets what is long over
WAKE = """
local limit, pause, reserve = tonumber(ARGV[1]), tonumber(ARGV[2]), tonumber(ARGV[3])
local woken = 0
for _, host in ipairs(redis.call('SMEMBERS', root .. 'hosts')) do
    local slots, line = root .. 'slots:' .. host, root .. 'line:' .. host
    redis.call('ZREMRANGEBYSCORE', slots, '-inf', now)
    local room = limit - redis.call('ZCARD', slots)
    local next = tonumber(redis.call('GET', root .. 'next:' .. host) or 0)
    if next > now then room = 0 end
    if pause > 0 then room = math.min(room, 1) end
    if room > 0 then
        local popped = redis.call('ZPOPMIN', line, room)
        for i = 1, #popped, 2 do
            local id = popped[i]
            redis.call('ZADD', slots, now + reserve, id)
            redis.call('HSET', page(id), 'woken', 1)
            move(id, 'queued')
            due(id, now)
            woken = woken + 1
        end
        if #popped > 0 and pause > 0 then
            redis.call('SET', root .. 'next:' .. host, now + pause, 'PX', math.ceil(pause * 1000) + 1)
        end
    end
    if redis.call('EXISTS', line) == 0 then redis.call('SREM', root .. 'hosts', host) end
end
redis.call('ZREMRANGEBYSCORE', root .. 'state:done', '-inf', now - ARGV[4])
redis.call('ZREMRANGEBYSCORE', root .. 'state:failed', '-inf', now - ARGV[4])
redis.call('ZREMRANGEBYSCORE', root .. 'ended', '-inf', now - 600)
return woken
"""
