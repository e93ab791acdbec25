-- One request (the URL's path and query), the users' Authorization values
-- taken in turn. Arguments: METHOD BODY_FILE AUTH... (BODY_FILE "-": no body).
local requests = {}
local n = 0
function init(args)
  local body = nil
  if args[2] ~= "-" then
    local f = assert(io.open(args[2], "rb"))
    body = f:read("*a")
    f:close()
  end
  for i = 3, #args do
    requests[#requests + 1] = wrk.format(args[1], nil,
      {["Authorization"] = args[i], ["Content-Type"] = "application/json"}, body)
  end
end
function request()
  n = n % #requests + 1
  return requests[n]
end
