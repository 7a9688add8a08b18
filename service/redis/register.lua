-- registerClient: adds the caller, unless it is there already, and gives the server's clients.
if not redis.call('HGET', KEYS[2], ARGV[1]) then
  local top = redis.call('ZREVRANGE', KEYS[1], 0, 0, 'WITHSCORES')
  redis.call('ZADD', KEYS[1], (tonumber(top[2]) or 0) + 1, ARGV[1])
  moveCursor(ARGV[1], newest())
end
return redis.call('ZRANGE', KEYS[1], 0, -1)
