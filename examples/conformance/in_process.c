/* A core library of another make, as small as one can be: its initiators have no broker, but
 * answer the requests of category "test" themselves, as the conformance kit expects it of a
 * test service. What is received is queued; a thread of each initiator calls the callbacks. */
#include <kavri/ipc.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

enum { good = KAVRI_CORE_STATUS_NO_ERROR, invalid = KAVRI_CORE_STATUS_INVALID_ARGUMENT };

/* A response, or an event, which has no uuid. */
struct message {
    struct message* next;
    char *category, *identifier, *uuid, *payload;
};

struct kavri_core_ipc_initiator {
    pthread_mutex_t lock;
    pthread_cond_t changed;
    pthread_t thread;
    struct message* first;
    kavri_core_ipc_initiator_response_callback onResponse;
    kavri_core_ipc_initiator_event_callback onEvent;
    void *responseContext, *eventContext;
    int subscribed, calling, ending;
    unsigned long repeatCount;
};

kavri_core_status kavri_core_init(void) {
    return good;
}
kavri_core_status kavri_core_deinit(void) {
    return good;
}
kavri_core_status kavri_core_logging_init(const char* name, kavri_core_logging_cookie* cookie) {
    static char context;
    if (name == NULL || cookie == NULL) {
        return invalid;
    }
    *cookie = (kavri_core_logging_cookie)(void*)&context;
    return good;
}
kavri_core_status kavri_core_logging_deinit(kavri_core_logging_cookie cookie) {
    return cookie != NULL ? good : invalid;
}

static void release(struct message* message) {
    free(message->category);
    free(message->identifier);
    free(message->uuid);
    free(message->payload);
    free(message);
}

static kavri_core_status queue(kavri_core_ipc_initiator* initiator, const char* identifier,
                               const char* uuid, const char* payload) {
    struct message* message = calloc(1, sizeof *message);
    if (message == NULL) {
        return KAVRI_CORE_STATUS_OUT_OF_RESOURCES;
    }
    message->category = strdup("test");
    message->identifier = strdup(identifier);
    message->uuid = uuid != NULL ? strdup(uuid) : NULL;
    message->payload = strdup(payload);
    if (message->category == NULL || message->identifier == NULL || message->payload == NULL ||
        (uuid != NULL && message->uuid == NULL)) {
        release(message);
        return KAVRI_CORE_STATUS_OUT_OF_RESOURCES;
    }
    struct message** end = &initiator->first;
    while (*end != NULL) {
        end = &(*end)->next;
    }
    *end = message;
    pthread_cond_broadcast(&initiator->changed);
    return good;
}

/* Takes the first response, or what a callback is installed for. */
static struct message* take(kavri_core_ipc_initiator* initiator, int responses, int events) {
    for (struct message** each = &initiator->first; *each != NULL; each = &(*each)->next) {
        if ((*each)->uuid != NULL ? responses : events) {
            struct message* taken = *each;
            *each = taken->next;
            return taken;
        }
    }
    return NULL;
}

static void deliver(kavri_core_ipc_initiator* initiator, struct message* message) {
    const kavri_core_ipc_initiator_response_callback onResponse = initiator->onResponse;
    const kavri_core_ipc_initiator_event_callback onEvent = initiator->onEvent;
    void* const responseContext = initiator->responseContext;
    void* const eventContext = initiator->eventContext;
    initiator->calling = 1;
    pthread_mutex_unlock(&initiator->lock);
    if (message->uuid != NULL) {
        onResponse(&message->category, &message->identifier, &message->uuid, &message->payload,
                   responseContext);
    } else {
        onEvent(&message->category, &message->identifier, &message->payload, eventContext);
    }
    free(message); /* the strings are the callback's */
    pthread_mutex_lock(&initiator->lock);
    initiator->calling = 0;
    pthread_cond_broadcast(&initiator->changed);
}

static void* callBack(void* context) {
    kavri_core_ipc_initiator* initiator = context;
    pthread_mutex_lock(&initiator->lock);
    while (!initiator->ending) {
        struct message* message =
            take(initiator, initiator->onResponse != NULL, initiator->onEvent != NULL);
        if (message != NULL) {
            deliver(initiator, message);
        } else {
            pthread_cond_wait(&initiator->changed, &initiator->lock);
        }
    }
    pthread_mutex_unlock(&initiator->lock);
    return NULL;
}

kavri_core_status kavri_core_ipc_initiator_init(kavri_core_logging_cookie cookie, void* options,
                                                kavri_core_ipc_initiator** initiator) {
    (void)cookie;
    (void)options;
    if (initiator == NULL) {
        return invalid;
    }
    *initiator = NULL;
    kavri_core_ipc_initiator* made = calloc(1, sizeof *made);
    if (made == NULL) {
        return KAVRI_CORE_STATUS_OUT_OF_RESOURCES;
    }
    pthread_mutex_init(&made->lock, NULL);
    pthread_cond_init(&made->changed, NULL);
    /* The thread blocks all signals, which are the program's. */
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int failure = pthread_create(&made->thread, NULL, callBack, made);
    pthread_sigmask(SIG_SETMASK, &before, NULL);
    if (failure != 0) {
        free(made);
        return KAVRI_CORE_STATUS_OUT_OF_RESOURCES;
    }
    *initiator = made;
    return good;
}

/* Not from within a callback: this library is an example. */
kavri_core_status kavri_core_ipc_deinit(kavri_core_ipc_initiator* initiator) {
    if (initiator == NULL) {
        return invalid;
    }
    pthread_mutex_lock(&initiator->lock);
    initiator->ending = 1;
    pthread_cond_broadcast(&initiator->changed);
    pthread_mutex_unlock(&initiator->lock);
    pthread_join(initiator->thread, NULL);
    for (struct message* each = take(initiator, 1, 1); each != NULL; each = take(initiator, 1, 1)) {
        release(each);
    }
    pthread_cond_destroy(&initiator->changed);
    pthread_mutex_destroy(&initiator->lock);
    free(initiator);
    return good;
}

/* What the service behind category "test" does with a command. */
static kavri_core_status serve(kavri_core_ipc_initiator* initiator, const char* command,
                               const char* uuid, const char* payload) {
    char count[24];
    if (strcmp(command, "echo") == 0) {
        return queue(initiator, command, uuid, payload);
    }
    if (strcmp(command, "static_response") == 0) {
        return queue(initiator, command, uuid, "my static payload");
    }
    if (strcmp(command, "get_repeat_count") == 0) {
        snprintf(count, sizeof count, "%lu", initiator->repeatCount);
        return queue(initiator, command, uuid, count);
    }
    if (strcmp(command, "event") == 0 && initiator->subscribed && initiator->onEvent != NULL) {
        return queue(initiator, command, NULL, payload);
    }
    if (strcmp(command, "clr_repeat_count") == 0) {
        initiator->repeatCount = 0;
    } else if (strcmp(command, "inc_repeat_count") == 0) {
        ++initiator->repeatCount;
    }
    return good;
}

kavri_core_status kavri_core_ipc_initiator_command_send(kavri_core_ipc_initiator* initiator,
                                                        const char* category,
                                                        const char* identifier, const char* uuid,
                                                        const char* payload) {
    if (initiator == NULL || category == NULL || identifier == NULL || uuid == NULL ||
        payload == NULL) {
        return invalid;
    }
    pthread_mutex_lock(&initiator->lock);
    const kavri_core_status status =
        strcmp(category, "test") == 0 ? serve(initiator, identifier, uuid, payload) : good;
    pthread_mutex_unlock(&initiator->lock);
    return status;
}

static struct timespec after(int timeoutMs) {
    struct timespec time;
    clock_gettime(CLOCK_REALTIME, &time);
    time.tv_sec += timeoutMs / 1000;
    time.tv_nsec += (timeoutMs % 1000) * 1000000L;
    if (time.tv_nsec >= 1000000000L) {
        ++time.tv_sec;
        time.tv_nsec -= 1000000000L;
    }
    return time;
}

kavri_core_status kavri_core_ipc_initiator_response_receive(kavri_core_ipc_initiator* initiator,
                                                            int timeout, char** category,
                                                            char** identifier, char** uuid,
                                                            char** payload) {
    if (initiator == NULL || timeout < -1 || category == NULL || identifier == NULL ||
        uuid == NULL || payload == NULL) {
        return invalid;
    }
    const struct timespec end = after(timeout);
    kavri_core_status status = KAVRI_CORE_STATUS_IPC_NO_MESSAGE;
    pthread_mutex_lock(&initiator->lock);
    for (int isOver = 0; status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE;) {
        struct message* response = initiator->onResponse == NULL ? take(initiator, 1, 0) : NULL;
        if (initiator->onResponse != NULL) {
            status = KAVRI_CORE_STATUS_IPC_FAILED;
        } else if (response != NULL) {
            *category = response->category;
            *identifier = response->identifier;
            *uuid = response->uuid;
            *payload = response->payload;
            free(response);
            status = good;
        } else if (isOver) {
            break;
        } else if (timeout < 0) {
            pthread_cond_wait(&initiator->changed, &initiator->lock);
        } else {
            isOver = pthread_cond_timedwait(&initiator->changed, &initiator->lock, &end) != 0;
        }
    }
    pthread_mutex_unlock(&initiator->lock);
    return status;
}

/* With the lock, which this returns without: waits for the call under way. */
static kavri_core_status installed(kavri_core_ipc_initiator* initiator) {
    pthread_cond_broadcast(&initiator->changed);
    while (initiator->calling && !pthread_equal(pthread_self(), initiator->thread)) {
        pthread_cond_wait(&initiator->changed, &initiator->lock);
    }
    pthread_mutex_unlock(&initiator->lock);
    return good;
}

kavri_core_status kavri_core_ipc_initiator_response_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_response_callback callback,
    void* context) {
    if (initiator == NULL || (callback == NULL && context != NULL)) {
        return invalid;
    }
    pthread_mutex_lock(&initiator->lock);
    initiator->onResponse = callback;
    initiator->responseContext = context;
    return installed(initiator);
}

kavri_core_status kavri_core_ipc_initiator_event_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_event_callback callback,
    void* context) {
    if (initiator == NULL || (callback == NULL && context != NULL)) {
        return invalid;
    }
    pthread_mutex_lock(&initiator->lock);
    initiator->onEvent = callback;
    initiator->eventContext = context;
    return installed(initiator);
}

static kavri_core_status subscribe(kavri_core_ipc_initiator* initiator, const char* category,
                                   int subscribed) {
    if (initiator == NULL || category == NULL) {
        return invalid;
    }
    pthread_mutex_lock(&initiator->lock);
    if (strcmp(category, "test") == 0) {
        initiator->subscribed = subscribed;
    }
    pthread_mutex_unlock(&initiator->lock);
    return good;
}

kavri_core_status kavri_core_ipc_initiator_event_subscribe(kavri_core_ipc_initiator* initiator,
                                                           const char* category) {
    return subscribe(initiator, category, 1);
}
kavri_core_status kavri_core_ipc_initiator_event_unsubscribe(kavri_core_ipc_initiator* initiator,
                                                             const char* category) {
    return subscribe(initiator, category, 0);
}
