// Replaces the camera codec library: a client of the simulated camera.
//
// The camera checks every call and keeps all state that outlives a process. This file keeps the
// connection, the mappings of the memory that the camera lends, and the thread that runs the notify
// callback. A lock guards connection and mappings. A call holds it until the camera has answered,
// so calls of several threads run one after the other. The notify thread reads a socket of its own
// without the lock, so a slow call delays no report.
//
// The session belongs to the process that opened it. In a child of fork the library is not
// initialized, and the memory lent to its parent is not mapped.

#include "qm7codec.h"

#include <atomic>
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include "client/client.h"

// ---- state

struct Mapping {
    uint8_t *base;
    size_t reserved; // bytes, including the unmapped page after the memory
    WireMemory memory;
};

struct PlaneMappings {
    uint32_t epoch;
    Mapping buffer[WIRE_BUFFERS];
};

struct Library {
    bool initialized; // false while connection and events change: a fork may copy this record
    bool dead;        // the connection failed; only library_exit succeeds
    int connection;   // valid while initialized
    int events;       // socket that receives WireNotify records; valid while initialized
    pthread_t thread; // runs the callback; valid while initialized
    Mapping color;
    PlaneMappings plane[WIRE_POSTS][WIRE_PLANES];
};

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static Library library;                                 // guarded by lock
static std::atomic<PostNotifyCallback> notify_callback; // set with the lock held, read without

static int32_t fail(uint32_t code)
{
    errno = (int)code;
    return -1;
}

// Makes the call and converts its outcome into a library result. The caller holds the lock.
static int32_t call_camera(uint32_t call, const void *request, void *reply, int *fd)
{
    if (!library.initialized)
        return fail(CODEC_NOT_INITIALIZED);
    if (library.dead)
        return fail(CODEC_NO_CAMERA);
    uint32_t error = 0;
    if (client_call(library.connection, call, request, reply, fd, &error) != 0) {
        library.dead = true;
        return fail(CODEC_NO_CAMERA);
    }
    return error ? fail(error) : 0;
}

static int32_t call_locked(uint32_t call, const void *request, void *reply)
{
    pthread_mutex_lock(&lock);
    const int32_t result = call_camera(call, request, reply, nullptr);
    const int code = errno;
    pthread_mutex_unlock(&lock);
    if (result != 0)
        errno = code;
    return result;
}

// Closes the descriptor received with an answer, if any. Preserves errno.
static void close_received(int fd)
{
    if (fd < 0)
        return;
    const int code = errno;
    close(fd);
    errno = code;
}

// ---- lent memory

static void unmap(Mapping *mapping)
{
    if (mapping->base)
        munmap(mapping->base, mapping->reserved);
    *mapping = {};
}

// Maps the memory of fd so that its last byte is the last of a page; the next page is unmapped, so
// that an access beyond the end faults.
static bool map(Mapping *mapping, const WireMemory *memory, int fd)
{
    const size_t page = (size_t)sysconf(_SC_PAGESIZE);
    if (memory->map_size == 0 || memory->map_size % page != 0 || memory->size > memory->map_size ||
        memory->offset != memory->map_size - memory->size)
        return false;
    const size_t reserved = memory->map_size + page;
    void *space = mmap(nullptr, reserved, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (space == MAP_FAILED)
        return false;
    void *base =
        mmap(space, memory->map_size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, 0);
    if (base == MAP_FAILED) {
        munmap(space, reserved);
        return false;
    }
    (void)madvise(space, reserved, MADV_DONTFORK); // the memory belongs to this process's session
    *mapping = {(uint8_t *)base, reserved, *memory};
    return true;
}

static OsdMem lent(const Mapping *mapping)
{
    return {mapping->base + mapping->memory.offset, mapping->memory.size};
}

static void unmap_all()
{
    unmap(&library.color);
    for (uint32_t post = 0; post < WIRE_POSTS; post++)
        for (uint32_t number = 0; number < WIRE_PLANES; number++)
            for (uint32_t i = 0; i < WIRE_BUFFERS; i++)
                unmap(&library.plane[post][number].buffer[i]);
}

// ---- notification

// True in a notify thread whose callback has ended the session.
static thread_local bool session_ended;

// Runs the callback for every report until the session ends.
static void *notify_run(void *argument)
{
    const int events = (int)(intptr_t)argument;
    while (!session_ended) {
        WireNotify record;
        const ssize_t length = recv(events, &record, sizeof record, 0);
        if (length < 0 && errno == EINTR)
            continue;
        if (length != (ssize_t)sizeof record)
            return nullptr;
        const PostNotifyCallback callback = notify_callback;
        if (callback)
            callback({record.mask_bit, record.post_res_id, record.post, record.running});
    }
    close(events); // qm7_cl_library_exit leaves it to this thread
    return nullptr;
}

// Starts the thread with every signal blocked: the program's own threads handle signals. Returns 0
// or an error code.
static uint32_t notify_start(int events, pthread_t *thread)
{
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int error = pthread_create(thread, nullptr, notify_run, (void *)(intptr_t)events);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return error == 0 ? 0 : CODEC_NO_MEMORY;
}

// ---- fork

// Called in the child of a fork, where only the forking thread exists. The child closes its copies
// of the sockets; the parent's stay open, and with them its session.
static void after_fork()
{
    lock = PTHREAD_MUTEX_INITIALIZER;
    if (library.initialized) {
        close(library.connection);
        close(library.events);
    }
    library = {};
    notify_callback = nullptr;
}

// ---- the library's functions

// A program started without a camera may exit before its first call and print nothing.
__attribute__((constructor)) static void loaded()
{
    client_check();
    (void)pthread_atfork(nullptr, nullptr, after_fork); // fails only for lack of memory
}

int32_t qm7_cl_library_init()
{
    pthread_mutex_lock(&lock);
    int32_t result = 0;
    uint32_t error = 0;
    int connection = -1;
    int events = -1;
    pthread_t thread = {};
    if (library.initialized)
        error = CODEC_INITIALIZED;
    else if ((connection = client_connect()) < 0 ||
             client_call(connection, WIRE_LIBRARY_INIT, nullptr, nullptr, &events, &error) != 0)
        error = CODEC_NO_CAMERA;
    else if (error == 0)
        error = events < 0 ? CODEC_NO_CAMERA : notify_start(events, &thread);

    if (error == 0) {
        library.connection = connection;
        library.events = events;
        library.thread = thread;
        __atomic_store_n(&library.initialized, true, __ATOMIC_RELEASE);
    } else {
        if (events >= 0)
            close(events);
        if (connection >= 0)
            close(connection);
        result = fail(error);
    }
    pthread_mutex_unlock(&lock);
    return result;
}

int32_t qm7_cl_library_exit()
{
    pthread_mutex_lock(&lock);
    int32_t result = 0;
    if (!library.initialized)
        result = fail(CODEC_NOT_INITIALIZED);
    else if (!library.dead)
        result = call_camera(WIRE_LIBRARY_EXIT, nullptr, nullptr, nullptr);
    if (result != 0 && !library.dead) {
        pthread_mutex_unlock(&lock);
        return result;
    }

    const pthread_t thread = library.thread;
    const int events = library.events;
    // A fork from here on leaves closing to this process.
    __atomic_store_n(&library.initialized, false, __ATOMIC_SEQ_CST);
    close(library.connection);
    unmap_all();
    library = {};
    notify_callback = nullptr;
    pthread_mutex_unlock(&lock);

    if (pthread_equal(thread, pthread_self())) { // called by the callback
        session_ended = true;
        pthread_detach(thread);
        return 0;
    }
    shutdown(events, SHUT_RDWR); // wakes the thread
    pthread_join(thread, nullptr);
    close(events);
    return 0;
}

int32_t qm7_cl_sys_open_device()
{
    return call_locked(WIRE_SYS_OPEN_DEVICE, nullptr, nullptr);
}

int32_t qm7_cl_sys_close_device()
{
    return call_locked(WIRE_SYS_CLOSE_DEVICE, nullptr, nullptr);
}

int32_t qm7_cl_post_notify_callback(PostNotifyCallback callback)
{
    const WireWord request = {callback ? 1u : 0u};
    pthread_mutex_lock(&lock);
    const int32_t result = call_camera(WIRE_POST_NOTIFY_CALLBACK, &request, nullptr, nullptr);
    if (result == 0)
        notify_callback = callback;
    pthread_mutex_unlock(&lock);
    return result;
}

int32_t qm7_cl_post_set_notify(uint32_t mask)
{
    const WireWord request = {mask};
    return call_locked(WIRE_POST_SET_NOTIFY, &request, nullptr);
}

int32_t qm7_cl_post_get_osd_color_mem(OsdMem *mem)
{
    if (!mem)
        return fail(CODEC_BAD_ARGUMENT);
    pthread_mutex_lock(&lock);
    WireMemory memory = {};
    int fd = -1;
    int32_t result = call_camera(WIRE_POST_GET_OSD_COLOR_MEM, nullptr, &memory, &fd);
    if (result == 0 && !library.color.base && !map(&library.color, &memory, fd))
        result = fail(CODEC_NO_MEMORY);
    if (result == 0)
        *mem = lent(&library.color);
    close_received(fd);
    pthread_mutex_unlock(&lock);
    return result;
}

int32_t qm7_cl_post_set_osd_color()
{
    return call_locked(WIRE_POST_SET_OSD_COLOR, nullptr, nullptr);
}

int32_t qm7_cl_post_thread_get_status(uint32_t post_res_id, PostStatus *status)
{
    if (!status)
        return fail(CODEC_BAD_ARGUMENT);
    const WireWord request = {post_res_id};
    WirePostStatus reply;
    const int32_t result = call_locked(WIRE_POST_THREAD_GET_STATUS, &request, &reply);
    if (result == 0)
        memcpy(status, &reply, sizeof *status);
    return result;
}

int32_t qm7_cl_post_open_osd(uint32_t post_res_id, const OsdOpenParam *param, uint32_t *buffer_size,
                             uint32_t *pitch)
{
    if (!param || !buffer_size || !pitch)
        return fail(CODEC_BAD_ARGUMENT);
    const WireOpenOsd request = {post_res_id, param->number, param->width, param->height,
                                 param->depth_code};
    WireOpenedOsd reply = {};
    const int32_t result = call_locked(WIRE_POST_OPEN_OSD, &request, &reply);
    if (result == 0) {
        *buffer_size = reply.extra;
        *pitch = reply.pitch;
    }
    return result;
}

int32_t qm7_cl_post_clear_osd(uint32_t post_res_id, uint32_t number)
{
    const WirePlane request = {post_res_id, number};
    return call_locked(WIRE_POST_CLEAR_OSD, &request, nullptr);
}

int32_t qm7_cl_post_close_osd(uint32_t post_res_id, uint32_t number)
{
    const WirePlane request = {post_res_id, number};
    return call_locked(WIRE_POST_CLOSE_OSD, &request, nullptr);
}

// Returns the mapping of the buffer that reply describes, and maps the buffer if that has not been
// done yet. If the plane was opened again since, unmaps its earlier buffers first, so that drawing
// into them crashes instead of being lost.
static Mapping *plane_mapping(const WireOsdMem *reply, int fd)
{
    if (reply->post >= WIRE_POSTS || reply->number >= WIRE_PLANES || reply->buffer >= WIRE_BUFFERS)
        return nullptr;
    PlaneMappings *plane = &library.plane[reply->post][reply->number];
    if (plane->epoch != reply->epoch) {
        for (uint32_t i = 0; i < WIRE_BUFFERS; i++)
            unmap(&plane->buffer[i]);
        plane->epoch = reply->epoch;
    }
    Mapping *mapping = &plane->buffer[reply->buffer];
    if (!mapping->base && !map(mapping, &reply->memory, fd))
        return nullptr;
    return mapping;
}

int32_t qm7_cl_post_get_osd_mem(uint32_t post_res_id, int32_t number, uint32_t *osd_id, OsdMem *mem)
{
    if (!osd_id || !mem)
        return fail(CODEC_BAD_ARGUMENT);
    const WirePlane request = {post_res_id, (uint32_t)number};
    pthread_mutex_lock(&lock);
    WireOsdMem reply = {};
    int fd = -1;
    int32_t result = call_camera(WIRE_POST_GET_OSD_MEM, &request, &reply, &fd);
    if (result == 0) {
        const Mapping *mapping = plane_mapping(&reply, fd);
        if (mapping) {
            *osd_id = reply.osd_id;
            *mem = lent(mapping);
        } else {
            result = fail(CODEC_NO_MEMORY);
        }
    }
    close_received(fd);
    pthread_mutex_unlock(&lock);
    return result;
}

int32_t qm7_cl_post_set_osd(uint32_t post_res_id, uint32_t osd_id, OsdPosition position)
{
    const WireSetOsd request = {post_res_id, osd_id, position.x, position.y};
    return call_locked(WIRE_POST_SET_OSD, &request, nullptr);
}
