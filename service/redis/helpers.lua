-- Helpers that the scripts of RedisService.cpp start with. Every script sees the server's keys
-- in this order, and a post's or an unregister's op key after them: KEYS[1] clients, KEYS[2]
-- cursors, KEYS[3] lag, KEYS[4] log, KEYS[5] head, KEYS[6] op. ARGV[1] is the caller. A cursor
-- or a `last` is "ID N": a stream entry id and the entry's position. A script returns false (a
-- nil reply) when the caller is not registered.
local function idOf(position) return string.match(position, '^%S+') end
local function msOf(position) return string.match(position, '^%d+') end
local function after(a, b)
  local am, as = string.match(a, '^(%d+)-(%d+)$')
  local bm, bs = string.match(b, '^(%d+)-(%d+)$')
  if not am or not bm then return false end
  am, as, bm, bs = tonumber(am), tonumber(as), tonumber(bm), tonumber(bs)
  return am > bm or (am == bm and as > bs)
end
local function newest()
  local head = redis.call('HMGET', KEYS[5], 'id', 'n')
  return (head[1] or '0-0') .. ' ' .. (head[2] or '0')
end
local function moveCursor(client, position)
  redis.call('HSET', KEYS[2], client, position)
  redis.call('ZADD', KEYS[3], msOf(position), client)
end
local function dropAcknowledged()
  local slowest = redis.call('ZRANGE', KEYS[3], 0, 0, 'WITHSCORES')
  if slowest[2] then redis.call('XTRIM', KEYS[4], 'MINID', '~', slowest[2]) end
end
