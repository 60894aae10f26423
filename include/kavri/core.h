/*
 * kavri core library: status values, life of the library, logging.
 *
 * Plain C11 that also compiles as C++. Every function returns a
 * kavri_core_status and reports through it alone: nothing is thrown, errno is
 * not part of the interface, and nothing that a caller or a peer does ends the
 * process. Only a defect of the library itself does, with a line on standard
 * error. All functions may be called from any thread.
 *
 * Strings are NUL-terminated byte strings; the library attaches no encoding
 * to them. Strings passed in are read during the call only.
 */
#ifndef KAVRI_CORE_H
#define KAVRI_CORE_H

#ifdef __cplusplus
extern "C" {
#endif

/*
 * The result of a call: one value for each case that a caller would handle
 * differently. The values never change their numbers.
 */
typedef enum kavri_core_status {
    /* The call succeeded. All functions. */
    KAVRI_CORE_STATUS_NO_ERROR = 0,

    /* A pointer that must not be null is null, a time-out is below -1, an
     * options structure is smaller than any known one, or a callback is null
     * while its context is not. Nothing was done. All functions with
     * arguments. */
    KAVRI_CORE_STATUS_INVALID_ARGUMENT = 1,

    /* The library is not initialised: call kavri_core_init first.
     * kavri_core_deinit, kavri_core_logging_init and the IPC init functions. */
    KAVRI_CORE_STATUS_NOT_INITIALISED = 2,

    /* Memory, descriptors or threads ran out. Nothing was done. All
     * functions. */
    KAVRI_CORE_STATUS_OUT_OF_RESOURCES = 3,

    /* A receive while a callback is installed that receives the same messages.
     * The receive functions. */
    KAVRI_CORE_STATUS_IPC_FAILED = 4,

    /* No message arrived within the time-out. Call again. The receive
     * functions. */
    KAVRI_CORE_STATUS_IPC_NO_MESSAGE = 5,

    /* No broker answers at the address. Nothing was sent. All IPC functions
     * that need the broker; each call tries again. */
    KAVRI_CORE_STATUS_IPC_BROKER_UNAVAILABLE = 6,

    /* The address of the broker cannot be one: empty, or longer than a socket
     * path may be. The IPC init functions. */
    KAVRI_CORE_STATUS_IPC_ADDRESS_INVALID = 7,

    /* The broker speaks another version of the protocol. Update one of the
     * two. The IPC init functions. */
    KAVRI_CORE_STATUS_IPC_INCOMPATIBLE = 8,

    /* The broker's configuration does not allow this to the user.
     * Certainly not delivered. The IPC init functions, subscribe, and a
     * receive after a request that was refused. */
    KAVRI_CORE_STATUS_IPC_REFUSED = 9,

    /* Nobody serves the category. Certainly not delivered. A receive after
     * the request. */
    KAVRI_CORE_STATUS_IPC_NO_RESPONDER = 10,

    /* The responder went away while it had the request. Whether it acted on
     * it is unknown. A receive after the request. */
    KAVRI_CORE_STATUS_IPC_RESPONDER_LOST = 11,

    /* The connection to the broker broke after the message was sent. Whether
     * it arrived is unknown. Send, receive, subscribe, unsubscribe, and the
     * answer to a request that came over the broken connection. */
    KAVRI_CORE_STATUS_IPC_CONNECTION_LOST = 12,

    /* A field is longer than the broker allows. Certainly not delivered. The
     * sending functions. */
    KAVRI_CORE_STATUS_IPC_TOO_LARGE = 13,

    /* A limit is reached: too many pending requests, or back-pressure of the
     * broker for longer than the time-out. Certainly not delivered; try later.
     * The sending functions, subscribe, a receive after the request, and the
     * IPC init functions when the broker is full. */
    KAVRI_CORE_STATUS_IPC_OVERLOADED = 14,

    /* Another responder serves the category already.
     * kavri_core_ipc_responder_init. */
    KAVRI_CORE_STATUS_IPC_CATEGORY_TAKEN = 15,

    /* The initiator or responder belongs to the process that forked this one.
     * Nothing was done; make a new one. All IPC functions with such an object,
     * except those that end it. */
    KAVRI_CORE_STATUS_IPC_OTHER_PROCESS = 16
} kavri_core_status;

/* A logging context. Opaque; one pointer wide; passed by value. */
typedef struct kavri_core_logging* kavri_core_logging_cookie;

/*
 * The name of a status in words, for messages: "no responder", say. Never
 * null; "unknown status" for a number that is none. The text is the library's
 * and lives as long as the process. Does not block.
 */
const char* kavri_core_status_text(kavri_core_status status);

/*
 * Brings the library up. Calls nest: each successful one is undone by one
 * kavri_core_deinit. Does not block.
 *
 * NO_ERROR.
 */
kavri_core_status kavri_core_init(void);

/*
 * Undoes one kavri_core_init. Initiators, responders and logging contexts that
 * are still open stay usable until they are ended themselves. Does not block.
 *
 * NO_ERROR; NOT_INITIALISED when every init has been undone already.
 */
kavri_core_status kavri_core_deinit(void);

/*
 * Opens a logging context and stores it in *cookie. The library's log lines
 * about objects made with it go to standard error, each with `name` in it. The environment variable
 * KAVRI_LOG sets from which severity on: "off", "error", "warning" (the default), "info" or
 * "debug".
 *
 * name: up to 255 bytes are used. cookie: the caller's variable, left alone on
 * failure. Does not block.
 *
 * NO_ERROR; INVALID_ARGUMENT (name or cookie null); NOT_INITIALISED;
 * OUT_OF_RESOURCES.
 */
kavri_core_status kavri_core_logging_init(const char* name, kavri_core_logging_cookie* cookie);

/*
 * Ends a logging context. Objects made with it go on logging under its name.
 * Does not block.
 *
 * NO_ERROR; INVALID_ARGUMENT (cookie null).
 */
kavri_core_status kavri_core_logging_deinit(kavri_core_logging_cookie cookie);

#ifdef __cplusplus
}
#endif

#endif
