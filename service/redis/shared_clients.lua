-- getSharedClients: the server's clients, false when the caller is not one of them.
if redis.call('HEXISTS', KEYS[2], ARGV[1]) == 0 then return false end
return redis.call('ZRANGE', KEYS[1], 0, -1)
