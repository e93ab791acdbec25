-- POST /api/v1/favorites/status with 50 paths, the users' Authorization
-- values taken in turn. Arguments: BODY_FILE AUTH...
local requests = {}
local n = 0
function init(args)
  local f = assert(io.open(args[1], "rb"))
  local body = f:read("*a")
  f:close()
  for i = 2, #args do
    requests[#requests + 1] = wrk.format("POST", "/api/v1/favorites/status",
      {["Authorization"] = args[i], ["Content-Type"] = "application/json"}, body)
  end
end
function request()
  n = n % #requests + 1
  return requests[n]
end
