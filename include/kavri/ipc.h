/*
 * kavri core library: requests, responses and events through the local broker.
 *
 * An initiator sends requests to a category; the broker routes each to the
 * responder of that category, whose response comes back with the request's
 * uuid. Events that a responder publishes reach the initiators that subscribed
 * to its category.
 *
 * Delivery. At most once, and never repeated by the library. Requests of one
 * initiator to one category arrive in the order sent; responses come back in
 * the order in which the responder gave them. A caller can tell three outcomes
 * apart: answered; certainly not delivered (IPC_NO_RESPONDER, IPC_REFUSED,
 * IPC_TOO_LARGE, IPC_OVERLOADED, IPC_BROKER_UNAVAILABLE); unknown
 * (IPC_RESPONDER_LOST, IPC_CONNECTION_LOST). A receive returns failures without
 * their requests; the outcome callback, in the options, is called with the uuid of each.
 *
 * Lost connections. The library connects again by itself, restores
 * subscriptions and the category served, and carries on: at the next call, or,
 * while a callback is installed, on its own thread, with pauses that grow from
 * 10 ms to 1 s. After a connection that lasted less than a second, every further
 * one is preceded by such a pause, which a call spends waiting as far as its time
 * limit allows. The outcome of requests in flight is unknown. Events
 * that were published in the meantime are missed; a connection callback, in the
 * options, is called when that may have happened.
 *
 * Received strings are allocated one by one with malloc. They belong to the
 * caller or callback that receives them, which releases each with free.
 *
 * Callbacks run one at a time per initiator or responder, on a thread of the
 * library's own in which all signals are blocked. Every function may be called
 * from within a callback. What has arrived is delivered at once: a response may
 * reach the callback before the send of its request has returned.
 *
 * Threads. Several threads may receive from one responder, or initiator, at the same
 * time: each message is received by one of them, and no wake-up is lost. Requests are
 * answered from any thread and in any order; responses leave in the order of the answers.
 * So a service uses as many cores as it has threads that receive, work and answer. A
 * callback alone works on one request after the other; it may pass them to threads of the
 * program, which answer. A loss of the connection ends each receive under way once. The
 * installation of a callback ends them all, with IPC_FAILED: after that, threads that
 * received can be joined and the object ended.
 *
 * Processes. An initiator or responder belongs to the process that made it. In a
 * child that was forked, every function of it returns IPC_OTHER_PROCESS at once
 * and changes nothing for the parent; ending it there releases the child's copy
 * alone. The child may make objects of its own, with a logging context of its own.
 * Until it ends those it inherited, or executes another program, the parent's
 * connections stay open while the child lives.
 *
 * Time-outs are in milliseconds; 0 does not wait, -1 waits without limit.
 *
 * The broker's address is a socket path: the options' `brokerAddress`; else the
 * environment variable KAVRI_BROKER; else $XDG_RUNTIME_DIR/kavri/broker.sock
 * where that exists; else /run/kavri/broker.sock.
 */
#ifndef KAVRI_IPC_H
#define KAVRI_IPC_H

#include <stddef.h>
#include <stdint.h>

#include "core.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One end of the traffic; both opaque. */
typedef struct kavri_core_ipc_initiator kavri_core_ipc_initiator;
typedef struct kavri_core_ipc_responder kavri_core_ipc_responder;

/* What happened to the connection of an initiator or responder. */
typedef enum kavri_core_ipc_connection_event {
    /* The first connection was made; init is about to return, or has. */
    KAVRI_CORE_IPC_CONNECTION_MADE = 0,
    /* The connection broke: the broker ended or was killed, or it took nothing
     * for sendTimeoutMs. The outcome of pending requests is unknown. */
    KAVRI_CORE_IPC_CONNECTION_BROKEN = 1,
    /* The broker closed it and gave a reason: its messages were not received
     * fast enough, a limit was reached, or the broker was stopped. */
    KAVRI_CORE_IPC_CONNECTION_CLOSED_BY_BROKER = 2,
    /* There is a connection again; subscriptions and the category served are in
     * effect. Events of the time in between were missed. */
    KAVRI_CORE_IPC_CONNECTION_RESTORED = 3
} kavri_core_ipc_connection_event;

typedef struct kavri_core_ipc_connection_change {
    /* The size of what the library fills in: later versions add members. */
    size_t sizeBytes;
    kavri_core_ipc_connection_event event;
    /* NO_ERROR; of a connection that is gone the status of its pending requests,
     * or the status that the broker gave for closing it. */
    kavri_core_status status;
    /* In words, at most 199 bytes, never null. The library's; valid during the
     * call. */
    const char* reason;
    /* Of a restored connection: for how long there was none, in milliseconds. */
    uint64_t disconnectedMs;
} kavri_core_ipc_connection_change;

/*
 * Receives one change of the connection, on the library's thread, like the other
 * callbacks and never at the same time as one of them; all functions may be called.
 * A change is delivered before any message of the connection that it is about;
 * messages of the lost connection may follow its loss. Where a callback takes so
 * long that 16 changes are queued, the oldest is dropped.
 */
typedef void (*kavri_core_ipc_connection_callback)(const kavri_core_ipc_connection_change* change,
                                                   void* context);

/*
 * Receives the outcome of one request that gets no response, on the library's thread,
 * like the other callbacks and never at the same time as one of them; all functions may
 * be called. uuid: the request's; the library's, valid during the call, never null.
 * status: NO_ERROR (delivered, and its responder ended it without an answer);
 * IPC_NO_RESPONDER, IPC_REFUSED, IPC_OVERLOADED, IPC_TOO_LARGE (for the way to
 * another machine): certainly not delivered;
 * IPC_RESPONDER_LOST, IPC_CONNECTION_LOST: unknown.
 */
typedef void (*kavri_core_ipc_outcome_callback)(const char* uuid, kavri_core_status status,
                                                void* context);

/*
 * How to reach the broker. Fill with zeros, then set sizeBytes and what is to
 * differ from the default.
 */
typedef struct kavri_core_ipc_options {
    /* sizeof(kavri_core_ipc_options): lets later versions add members. */
    size_t sizeBytes;
    /* Path of the broker's socket, at most 107 bytes; null: the rule above. */
    const char* brokerAddress;
    /* How long init, and connecting again, may wait for the broker's welcome,
     * in milliseconds; 0: 5000. */
    unsigned int connectTimeoutMs;
    /* How long a call that sends may take, with all of its waits (for a
     * connection, for other senders, for room in the socket), and a subscribe or
     * unsubscribe with its acknowledgement, in milliseconds; 0: 10000. */
    unsigned int sendTimeoutMs;
    /* Not 0: messages that a callback sends are gathered, and written together
     * when the library's thread has nothing further to deliver or has to wait,
     * when 64 KiB are gathered, or when another thread sends. For callbacks that
     * return quickly: a gathered message is delayed until those that follow have
     * returned. The order is that of the sends, gathered or not. A gathered
     * message that then cannot be written counts as lost with the connection. */
    unsigned int gatherWrites;
    /* Null, or called for each change of the connection from init on until the
     * end, with connectionContext. Then the library's thread exists from the
     * beginning, reads what arrives, and connects again by itself. A program whose
     * options end before this member works as before. */
    kavri_core_ipc_connection_callback connectionCallback;
    void* connectionContext;
    /* Of an initiator; null, or called with outcomeContext for each request that gets no
     * response, as soon as that is known, whatever else is pending. So a program with many
     * requests in flight learns what became of each. Receives do not return the outcomes of
     * requests then. The library keeps the uuid of each pending request. A request whose
     * send fails is reported by the send; where the connection broke during the send,
     * possibly by both. As with the connection callback, the library's thread exists from
     * the beginning, and options may end before this member. */
    kavri_core_ipc_outcome_callback outcomeCallback;
    void* outcomeContext;
} kavri_core_ipc_options;

/*
 * Receives one response. Each argument points to the library's pointer to one
 * string, which is the callback's to free; the pointers need not be cleared.
 * *payload is null where the response has none; the other three strings are
 * always there. context: as installed.
 */
typedef void (*kavri_core_ipc_initiator_response_callback)(char** targetCategory,
                                                           char** targetIdentifier, char** uuid,
                                                           char** payload, void* context);

/*
 * Receives one event. Ownership as above; all three strings are always there.
 */
typedef void (*kavri_core_ipc_initiator_event_callback)(char** targetCategory,
                                                        char** targetIdentifier, char** payload,
                                                        void* context);

/*
 * Connects a new initiator to the broker and stores it in *initiator.
 *
 * cookie: the logging context; null: messages carry the name "kavri".
 * options: null, or a kavri_core_ipc_options. *initiator is null after a
 * failure. Waits for the broker for at most connectTimeoutMs.
 *
 * NO_ERROR; INVALID_ARGUMENT (initiator null, options too small);
 * NOT_INITIALISED; OUT_OF_RESOURCES; IPC_ADDRESS_INVALID;
 * IPC_BROKER_UNAVAILABLE (no broker listens there, or no welcome in time);
 * IPC_INCOMPATIBLE; IPC_REFUSED (this user may not connect); IPC_OVERLOADED
 * (the broker has as many connections as it may).
 */
kavri_core_status kavri_core_ipc_initiator_init(kavri_core_logging_cookie cookie, void* options,
                                                kavri_core_ipc_initiator** initiator);

/*
 * Ends an initiator: removes its callbacks, drops its subscriptions and the
 * responses that were not received, closes the connection, frees it. No other thread
 * may be in a call with it, or make one afterwards. Waits for a callback under
 * way, except when called from within it.
 *
 * NO_ERROR; INVALID_ARGUMENT (initiator null).
 */
kavri_core_status kavri_core_ipc_deinit(kavri_core_ipc_initiator* initiator);

/*
 * Sends one request and returns without waiting for its response. Blocks while
 * the socket is full, while other threads are sending, and where a connection
 * has to be made; for at most sendTimeoutMs in all. The outcome of the request
 * is returned by a later receive.
 *
 * While a request waits for a responder that does not keep up, later requests of
 * the same initiator wait too, also those for other categories. The wait ends
 * when the responder takes more, or with IPC_OVERLOADED some hundred milliseconds
 * after it took too little (the broker's stall_ms).
 *
 * targetCategory, targetIdentifier, uuid: at most 64 KiB each. payload: at
 * most what the broker allows (1 MiB unless configured). All four must be
 * given; all may be empty. The uuid comes back in the response; it need not be
 * unique.
 *
 * NO_ERROR (written to the broker's socket); INVALID_ARGUMENT;
 * IPC_TOO_LARGE; IPC_OVERLOADED (no room in the socket within sendTimeoutMs, or
 * too many pending requests); IPC_BROKER_UNAVAILABLE;
 * IPC_CONNECTION_LOST; OUT_OF_RESOURCES.
 */
kavri_core_status kavri_core_ipc_initiator_command_send(kavri_core_ipc_initiator* initiator,
                                                        const char* targetCategory,
                                                        const char* targetIdentifier,
                                                        const char* uuid, const char* payload);

/*
 * One request of a batch; its strings as the parameters of
 * kavri_core_ipc_initiator_command_send.
 */
typedef struct kavri_core_ipc_command {
    const char* targetCategory;
    const char* targetIdentifier;
    const char* uuid;
    const char* payload;
} kavri_core_ipc_command;

/*
 * Sends several requests in order, with as few writes as possible: cheaper than
 * one call for each, and otherwise the same.
 *
 * commands: `count` of them, read during the call only. *sent: how many were
 * written to the broker's socket, always set; the status is that of the first of
 * the others. After IPC_CONNECTION_LOST the outcome of up to 64 KiB of requests
 * after the sent ones is unknown.
 *
 * NO_ERROR (all sent); the failures of kavri_core_ipc_initiator_command_send.
 */
kavri_core_status kavri_core_ipc_initiator_command_send_batch(
    kavri_core_ipc_initiator* initiator, const kavri_core_ipc_command* commands, size_t count,
    size_t* sent);

/*
 * Takes the next response, in the order of arrival, and stores its strings in
 * the four variables, without releasing what they held. *payload becomes null
 * where the response has none. Without NO_ERROR the variables are left alone.
 *
 * Never waits for a response that was lost with its responder or connection. A
 * request that failed makes one receive return its status, once no response is
 * queued and no request sent after it is pending; so a command that is never
 * answered does not end a receive for a later one. A request that its responder
 * ended without an answer is no failure and ends no receive. A receive without
 * limit waits even where no request is pending, since another thread may send
 * one.
 *
 * NO_ERROR; INVALID_ARGUMENT; IPC_FAILED (a response callback is installed;
 * returned at once whatever the time-out); IPC_NO_MESSAGE (none within the
 * time-out); IPC_NO_RESPONDER, IPC_REFUSED, IPC_OVERLOADED (a request was not
 * delivered); IPC_TOO_LARGE (likewise: the responder is on another machine, and
 * the way there takes no message of this size); IPC_RESPONDER_LOST,
 * IPC_CONNECTION_LOST (a request's outcome is unknown, or the connection broke
 * during this call);
 * IPC_BROKER_UNAVAILABLE (no connection, and none to be had);
 * OUT_OF_RESOURCES.
 */
kavri_core_status kavri_core_ipc_initiator_response_receive(kavri_core_ipc_initiator* initiator,
                                                            int timeout, char** targetCategory,
                                                            char** targetIdentifier, char** uuid,
                                                            char** payload);

/*
 * Installs the response callback, in place of the one before, or removes it
 * (callback and context both null). While one is installed, every response goes
 * to it, those already queued first, and receives are refused. Responses that
 * arrive after its removal are queued for a receive again.
 *
 * On return, no call of the callback before it is running or will be made; from
 * within a callback, that call alone is still running.
 *
 * NO_ERROR; INVALID_ARGUMENT; OUT_OF_RESOURCES.
 */
kavri_core_status kavri_core_ipc_initiator_response_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_response_callback callback,
    void* context);

/*
 * Subscribes to the events of a category. In effect when the call returns;
 * once is enough, a second time changes nothing. Waits for the broker's
 * acknowledgement for at most sendTimeoutMs.
 *
 * category: at most 64 KiB, not empty.
 *
 * NO_ERROR; INVALID_ARGUMENT; IPC_TOO_LARGE; IPC_REFUSED; IPC_OVERLOADED (no
 * acknowledgement in time, or too many subscriptions);
 * IPC_BROKER_UNAVAILABLE; IPC_CONNECTION_LOST; OUT_OF_RESOURCES.
 */
kavri_core_status kavri_core_ipc_initiator_event_subscribe(kavri_core_ipc_initiator* initiator,
                                                           const char* category);

/*
 * Ends a subscription. No event of the category is taken for delivery after the
 * return; a callback for one that was taken before may still be under way. Waits
 * like subscribe. Ending one that is not
 * there changes nothing.
 *
 * NO_ERROR; the failures of subscribe. Whatever the status, the library
 * delivers no further event of the category.
 */
kavri_core_status kavri_core_ipc_initiator_event_unsubscribe(kavri_core_ipc_initiator* initiator,
                                                             const char* category);

/*
 * Installs or removes the event callback, as the response callback above.
 * Events that arrive while none is installed are dropped. Receives stay
 * allowed while only an event callback is installed.
 *
 * NO_ERROR; INVALID_ARGUMENT; OUT_OF_RESOURCES.
 */
kavri_core_status kavri_core_ipc_initiator_event_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_event_callback callback,
    void* context);

/*
 * Names one request to its responder until it is answered or ended. A value to
 * keep and pass back; its members are the library's.
 */
typedef struct kavri_core_ipc_request {
    uint64_t token;
    uint64_t connection;
} kavri_core_ipc_request;

/*
 * Receives one request on the library's thread. Ownership of the four strings
 * as for the initiator's callbacks; all are always there. Answer with
 * kavri_core_ipc_responder_response_send, or end it without an answer with
 * kavri_core_ipc_responder_request_end; from here or later, from any thread.
 */
typedef void (*kavri_core_ipc_responder_request_callback)(kavri_core_ipc_request request,
                                                          char** targetCategory,
                                                          char** targetIdentifier, char** uuid,
                                                          char** payload, void* context);

/*
 * Connects a new responder to the broker, makes it the one of `category`, and
 * stores it in *responder. Parameters, waiting and failures as for
 * kavri_core_ipc_initiator_init; category not empty, at most 64 KiB.
 *
 * Further: IPC_CATEGORY_TAKEN (another responder serves it); IPC_REFUSED also
 * when this user may not serve it.
 */
kavri_core_status kavri_core_ipc_responder_init(kavri_core_logging_cookie cookie, void* options,
                                                const char* category,
                                                kavri_core_ipc_responder** responder);

/*
 * Ends a responder. Requests that it has not answered come to their senders as
 * IPC_RESPONDER_LOST. Otherwise as kavri_core_ipc_deinit.
 *
 * NO_ERROR; INVALID_ARGUMENT (responder null).
 */
kavri_core_status kavri_core_ipc_responder_deinit(kavri_core_ipc_responder* responder);

/*
 * Takes the next request and stores its name and its strings. Without NO_ERROR
 * the variables are left alone. By several threads at the same time, each gets
 * requests of its own.
 *
 * NO_ERROR; INVALID_ARGUMENT; IPC_FAILED (a request callback is installed);
 * IPC_NO_MESSAGE; IPC_CONNECTION_LOST (the connection broke during this call;
 * the next one serves again); IPC_BROKER_UNAVAILABLE; IPC_CATEGORY_TAKEN,
 * IPC_REFUSED (found when connecting again); OUT_OF_RESOURCES.
 */
kavri_core_status kavri_core_ipc_responder_request_receive(
    kavri_core_ipc_responder* responder, int timeout, kavri_core_ipc_request* request,
    char** targetCategory, char** targetIdentifier, char** uuid, char** payload);

/*
 * Installs or removes the request callback; as the initiator's.
 *
 * NO_ERROR; INVALID_ARGUMENT; OUT_OF_RESOURCES.
 */
kavri_core_status kavri_core_ipc_responder_request_receive_callback(
    kavri_core_ipc_responder* responder, kavri_core_ipc_responder_request_callback callback,
    void* context);

/*
 * Answers a request, once: the broker drops a second answer, and logs it. The
 * strings are the response's fields; the uuid is to be the request's. payload
 * null: a response without one. Blocks like
 * kavri_core_ipc_initiator_command_send.
 *
 * NO_ERROR; INVALID_ARGUMENT; IPC_TOO_LARGE (the request stays pending);
 * IPC_OVERLOADED (likewise); IPC_CONNECTION_LOST (the connection over which
 * the request came is gone, or broke now); OUT_OF_RESOURCES.
 */
kavri_core_status kavri_core_ipc_responder_response_send(kavri_core_ipc_responder* responder,
                                                         kavri_core_ipc_request request,
                                                         const char* targetCategory,
                                                         const char* targetIdentifier,
                                                         const char* uuid, const char* payload);

/*
 * Ends a request without an answer. Every request is to be answered or ended:
 * a pending one uses memory of the broker, and its sender may wait for it.
 *
 * NO_ERROR; the failures of kavri_core_ipc_responder_response_send.
 */
kavri_core_status kavri_core_ipc_responder_request_end(kavri_core_ipc_responder* responder,
                                                       kavri_core_ipc_request request);

/*
 * Publishes one event of the category that this responder serves, to every
 * initiator subscribed at that moment; where there is none, it succeeds. Blocks
 * like kavri_core_ipc_initiator_command_send.
 *
 * NO_ERROR; INVALID_ARGUMENT (also: targetCategory is not the one served);
 * IPC_TOO_LARGE; IPC_OVERLOADED; IPC_BROKER_UNAVAILABLE;
 * IPC_CONNECTION_LOST; OUT_OF_RESOURCES.
 */
kavri_core_status kavri_core_ipc_responder_event_publish(kavri_core_ipc_responder* responder,
                                                         const char* targetCategory,
                                                         const char* targetIdentifier,
                                                         const char* payload);

#ifdef __cplusplus
}
#endif

#endif
