-- putEvents; ARGV[2] the event, ARGV[3] events to keep (0: any number), ARGV[4] milliseconds
-- to keep them (0: any time), ARGV[5] how long to remember the op. The op remembers the last
-- registration it was queued for, so that a repeat answers with the same clients (less any that
-- left since). Gives the clients that the event was queued for.
local function queuedFor(upTo)
  local others = {}
  for _, c in ipairs(redis.call('ZRANGEBYSCORE', KEYS[1], '-inf', upTo)) do
    if c ~= ARGV[1] then others[#others + 1] = c end
  end
  return others
end
local done = redis.call('GET', KEYS[6])
if done then return queuedFor(done) end
local cursor = redis.call('HGET', KEYS[2], ARGV[1])
if not cursor then return false end
local before = newest()
local n = redis.call('HINCRBY', KEYS[5], 'n', 1)
local add = {'XADD', KEYS[4]}
if ARGV[3] ~= '0' then add = {'XADD', KEYS[4], 'MAXLEN', '~', ARGV[3]} end
for _, part in ipairs({'*', 'sender', ARGV[1], 'n', n, 'event', ARGV[2]}) do add[#add + 1] = part end
local id = redis.call(unpack(add))
redis.call('HSET', KEYS[5], 'id', id)
if ARGV[4] ~= '0' then
  local now = redis.call('TIME')
  local cutoff = tonumber(now[1]) * 1000 + math.floor(tonumber(now[2]) / 1000) - tonumber(ARGV[4])
  if cutoff > 0 then redis.call('XTRIM', KEYS[4], 'MINID', '~', string.format('%d', cutoff)) end
end
-- A caller that had nothing pending need not hold the log back for an event of its own.
if idOf(cursor) == idOf(before) then
  moveCursor(ARGV[1], id .. ' ' .. n)
  dropAcknowledged()
end
local top = redis.call('ZREVRANGE', KEYS[1], 0, 0, 'WITHSCORES')
redis.call('SET', KEYS[6], top[2], 'EX', ARGV[5])
return queuedFor(top[2])
