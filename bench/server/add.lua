-- POST /api/v1/favorites/items adding /shared/Load/rN, a new N each time,
-- the users' Authorization values taken in turn. Arguments: FIRST AUTH...
local auths = {}
local next_object = 0
local n = 0
function init(args)
  next_object = tonumber(args[1])
  for i = 2, #args do auths[#auths + 1] = args[i] end
end
function request()
  n = n % #auths + 1
  local body = '{"catalogPath":"/shared/Load/r' .. next_object .. '"}'
  next_object = next_object + 1
  return wrk.format("POST", "/api/v1/favorites/items",
    {["Authorization"] = auths[n], ["Content-Type"] = "application/json"}, body)
end
