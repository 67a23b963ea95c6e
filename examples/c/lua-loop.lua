-- Follows status values in Lua, through LuaJIT's ffi. Prints each value, until its standard input ends.
--
--     luajit lua-loop.lua KEY...

local ffi = require("ffi")

-- What of statusmanager/status.h is used here.
ffi.cdef [[
typedef struct status_handle status_t;
typedef struct { const char* key; const char* value; } status_pair_t;
typedef struct { size_t count; const status_pair_t* pairs; } status_values_t;
typedef struct {
    int kind;
    int result;
    uint64_t tag;
    uint64_t number;
    const char* key;
    const char* value;
    status_values_t values;
} status_item_t;
int status_open(int timeout_ms, status_t** status);
int status_close(status_t* status);
int status_subscribe(status_t* status, const char* const* keys, size_t count);
int status_fd(status_t* status);
int status_next(status_t* status, status_item_t** item);
const char* status_strerror(int result);
void status_free(const void* memory);

struct pollfd { int fd; short events; short revents; };
int poll(struct pollfd* fds, unsigned long count, int timeout_ms);
]]

local c = ffi.load("libstatusmanager-c.so.1")
local CHANGE, POLLIN = 1, 1

local function check(result)
    if result < 0 then
        io.stderr:write("lua-loop: ", ffi.string(c.status_strerror(result)), "\n")
        os.exit(1)
    end
    return result
end

local place = ffi.new("status_t*[1]")
check(c.status_open(5000, place))
local status = place[0]
check(c.status_subscribe(status, ffi.new("const char*[?]", #arg, { unpack(arg) }), #arg))

local fds = ffi.new("struct pollfd[2]", { { 0, POLLIN }, { c.status_fd(status), POLLIN } })
local item = ffi.new("status_item_t*[1]")
while fds[0].revents == 0 do
    ffi.C.poll(fds, 2, -1)
    while check(c.status_next(status, item)) == 1 do
        if item[0].kind == CHANGE then
            print(ffi.string(item[0].key) .. "=" .. ffi.string(item[0].value))
        end
        c.status_free(item[0])
    end
    io.flush()
end
c.status_close(status)
