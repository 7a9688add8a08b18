-- unregisterClient; ARGV[2] how long to remember the op. Gives the clients that remain.
if redis.call('EXISTS', KEYS[6]) == 1 then return redis.call('ZRANGE', KEYS[1], 0, -1) end
if redis.call('HDEL', KEYS[2], ARGV[1]) == 0 then return false end
redis.call('ZREM', KEYS[1], ARGV[1])
redis.call('ZREM', KEYS[3], ARGV[1])
redis.call('SET', KEYS[6], '', 'EX', ARGV[2])
if redis.call('EXISTS', KEYS[1]) == 0 then
  redis.call('DEL', KEYS[4], KEYS[5])
  return {}
end
dropAcknowledged()
return redis.call('ZRANGE', KEYS[1], 0, -1)
