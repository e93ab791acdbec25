-- GET of the URL's path, the users' Authorization values taken in turn.
-- Arguments: AUTH...
local requests = {}
local n = 0
function init(args)
  for i = 1, #args do
    requests[#requests + 1] = wrk.format("GET", nil, {["Authorization"] = args[i]})
  end
end
function request()
  n = n % #requests + 1
  return requests[n]
end
