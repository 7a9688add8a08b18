-- getEvents; ARGV[2] the acknowledgement (empty: none), ARGV[3] and ARGV[4] the batch's most
-- events and bytes, ARGV[5] the most entries to look at. Gives {last, events}.
local cursor = redis.call('HGET', KEYS[2], ARGV[1])
if not cursor then return false end
if ARGV[2] ~= '' and after(idOf(ARGV[2]), idOf(cursor)) then
  cursor = ARGV[2]
  moveCursor(ARGV[1], cursor)
  dropAcknowledged()
end
local events, count, bytes, last = {}, 0, 0, ''
local maxEvents, maxBytes, left = tonumber(ARGV[3]), tonumber(ARGV[4]), tonumber(ARGV[5])
local from = '(' .. idOf(cursor)
while left > 0 do
  local page = math.min(left, 100)
  local entries = redis.call('XRANGE', KEYS[4], from, '+', 'COUNT', page)
  for _, entry in ipairs(entries) do
    local fields = entry[2]
    if fields[2] ~= ARGV[1] then
      if count == maxEvents or (count > 0 and bytes + #fields[6] > maxBytes) then
        return {last, table.concat(events)}
      end
      count = count + 1
      bytes = bytes + #fields[6]
      events[count] = fields[6]
    end
    last = entry[1] .. ' ' .. fields[4]
    from = '(' .. entry[1]
  end
  if #entries < page then break end
  left = left - page
end
return {last, table.concat(events)}
