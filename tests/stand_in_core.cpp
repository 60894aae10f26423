// A core library, a broker and a test service played by one small library: the same
// record in every run, and what no fault of the kit can do to a library that is right.
//
// The module is run with this library in the core library's place. What it calls
// is answered here, in the process: no broker, no socket. The environment says
//
//   STAND_IN_DEFECT  what is wrong, as "name" or "name=value"; see `knownDefects`
//   STAND_IN_RECORD  the file that gets a line for each call, delivery, release and
//                    pause, written at once, so that it outlives a crash; and at the
//                    end one for each string that was handed out and never released
//   STAND_IN_DELIVERY  when callbacks are called; see `knownDeliveries`
//
// Built with KAVRI_LACKING it does not have two of the functions.
//
// Pauses are played too: `usleep` and `sleep` of this library take the place of
// the C library's, are recorded, and take no time. Callbacks come one at a time,
// unless otherwise asked for on a thread of this library's own while the module is
// in `sleep`; so every run of a case gives the same record. `free` is replaced to see what
// becomes of the strings handed out; under a sanitizer, which has its own, releases are not
// recorded.
#include <fcntl.h>
#include <kavri/ipc.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <deque>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

// ---------------------------------------------------------------- what is wrong

// Answers and receives are counted per initiator, from 1.
constexpr std::string_view knownDefects[] = {
    // What the library does with a call, or with a message.
    "initiatorMissing",      // accepted, yet no handle is stored
    "sendsMisreported",      // sent, yet refused with 13
    "receiveMisreported",    // value: which receive; it stores, and returns 12
    "refusedReceiveStores",  // value: the time-out for which a refused receive does
    "thirdAnswerAtTry",      // value: the receive, counted from the answer on, that finds it
    "deliveryTextMissing",   // value: which one
    "doesNothing",           // all calls succeed, and no message comes

    // What the service answers. The value is the text, or the counter at the start.
    "answerPayload", "answerPayloadMissing", "answerUuidPrefix", "counterStart", "eventAnswered",
    "answerBytes",  // value: the length of each payload

    // What a library does to its process: when it is loaded or unloaded, or with each send.
    "crashesWhenLoaded", "hangsWhenLoaded", "crashesWhenUnloaded", "hangsWhenUnloaded", "hangs",
    "leavesProcess", "startsThreads", "closesDescriptors", "prints", "printsControls",
    "printsWithoutEnd", "sendTakes"};

// The value of the variable, which is one of the names, with or without "=value". Another one
// ends the run: the test that asked for it would otherwise judge a healthy library.
std::string chosen(const char* variable, std::span<const std::string_view> names) {
    const char* text = getenv(variable);
    const std::string value = text != nullptr ? text : "";
    if (!value.empty() && std::ranges::count(names, value.substr(0, value.find('='))) == 0) {
        fprintf(stderr, "stand-in core library: unknown %s \"%s\"\n", variable, text);
        abort();
    }
    return value;
}

// The value of the defect if it is the one in force; empty where it was given none.
std::optional<std::string> defect(std::string_view name) {
    static const std::string inForce = chosen("STAND_IN_DEFECT", knownDefects);
    if (inForce.substr(0, inForce.find('=')) != name) {
        return std::nullopt;
    }
    return inForce.size() > name.size() ? inForce.substr(name.size() + 1) : std::string();
}

bool defectIs(std::string_view name, const std::string& value) {
    return defect(name) == value;
}

// When callbacks are called; the first unless another is asked for.
constexpr std::string_view knownDeliveries[] = {
    "inSleep",       // by the library's thread, while the module sleeps
    "atOnce",        // by the library's thread, while the module goes on sending
    "beforeReturn",  // by the library's thread, while the send waits for it
    "inSend",        // by the sender's thread, within the send
    "underLock"};    // by the library's thread at once, which holds the library's lock meanwhile

bool deliveryIs(std::string_view delivery) {
    static const std::string asked = chosen("STAND_IN_DELIVERY", knownDeliveries);
    return (asked.empty() ? knownDeliveries[0] : asked) == delivery;
}

// --------------------------------------------------- what is done to the process

[[noreturn]] void hang() {
    fputs("hanging\n", stderr);
    while (true) {
        pause();
    }
}

// A process that outlives its parent, in a session of its own.
void leaveProcess() {
    if (fork() == 0) {
        setsid();
        if (fork() == 0) {
            hang();
        }
        _exit(0);
    }
}

void disturbProcess() {
    if (defect("hangs")) {
        hang();
    } else if (defect("leavesProcess")) {
        leaveProcess();
    } else if (defect("startsThreads")) {
        for (int i = 0; i < 3; ++i) {
            std::thread(hang).detach();
        }
    } else if (defect("prints")) {
        puts("a line on standard output");
        fputs("a line on standard error\n", stderr);
        fputs("no line break at the end", stdout);
    } else if (defect("closesDescriptors")) {
        close_range(3, ~0U, 0);
    } else if (const auto taken = defect("sendTakes")) {
        std::this_thread::sleep_for(std::chrono::milliseconds(std::stoi(*taken)));
    } else if (defect("printsControls")) {
        fputs("\x1b[2J\x1b]0;title\a \xff\xc2\x9b", stderr);
    } else if (defect("printsWithoutEnd")) {
        while (true) {
            puts("and another line, and another one, and another one");
        }
    }
}

__attribute__((constructor)) void disturbLoading() {
    if (defect("crashesWhenLoaded")) {
        fputs("cannot be loaded\n", stderr);
        abort();
    } else if (defect("hangsWhenLoaded")) {
        hang();
    }
}

__attribute__((destructor)) void disturbUnloading() {
    if (defect("crashesWhenUnloaded")) {
        abort();
    } else if (defect("hangsWhenUnloaded")) {
        hang();
    }
}

// ------------------------------------------------------------------- the record

// Does not allocate, as it is also called from within `free`.
void recordLine(const char* text, size_t length) {
    static const char* const path = getenv("STAND_IN_RECORD");
    if (path == nullptr) {
        return;
    }
    static const int file = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (write(file, text, length) != static_cast<ssize_t>(length)) {
        abort();
    }
}

void record(std::string line) {
    line += '\n';
    recordLine(line.data(), line.size());
}

std::string quoted(const char* text) {
    if (text == nullptr) {
        return "null";
    }
    std::string result = "\"";
    for (; *text != '\0'; ++text) {
        result += *text == '\n' ? std::string("\\n") : std::string(1, *text);
    }
    return result + "\"";
}

// What a variable of the caller's holds when its address is passed.
template <typename Value>
std::string held(Value* const* variable) {
    return *variable == nullptr ? "[null]" : "[held]";
}

std::string hexadecimal(const void* value) {
    char text[32];
    snprintf(text, sizeof text, "0x%lx", reinterpret_cast<unsigned long>(value));
    return text;
}

// Functions have no names here: the first one passed is function1, the next
// different one function2.
std::string functionName(const void* function) {
    static std::vector<const void*> seen;
    if (function == nullptr) {
        return "null";
    }
    auto place = std::find(seen.begin(), seen.end(), function);
    if (place == seen.end()) {
        place = seen.insert(seen.end(), function);
    }
    return "function" + std::to_string(place - seen.begin() + 1);
}

// A call, with its arguments as texts.
template <typename... Arguments>
std::string call(const std::string& function, const Arguments&... arguments) {
    std::string list;
    ((list += (list.empty() ? "" : ", ") + std::string(arguments)), ...);
    return "kavri_core_" + function + "(" + list + ")";
}

// Records a call with its result, and gives the result back.
kavri_core_status returned(const std::string& itsCall,
                           kavri_core_status status = KAVRI_CORE_STATUS_NO_ERROR,
                           const std::string& stored = "") {
    record(itsCall + " = " + std::to_string(status) + stored);
    return status;
}

// ------------------------------------------------- strings that were handed out

struct HandedOut {
    std::atomic<void*> address;
    char name[48];
};

// More than any case holds at once. Static, because `free` is called before and
// after everything else in the process.
std::array<HandedOut, 256> handedOut;

#ifndef KAVRI_SANITIZED
void recordFate(const char* fate, const HandedOut& entry) {
    char line[64];
    const int length = snprintf(line, sizeof line, "%s %s\n", fate, entry.name);
    recordLine(line, static_cast<size_t>(length));
}

void noteRelease(void* address) {
    for (HandedOut& entry : handedOut) {
        void* expected = address;
        if (entry.address.compare_exchange_strong(expected, nullptr)) {
            recordFate("release", entry);
        }
    }
}

__attribute__((destructor)) void recordUnreleased() {
    for (const HandedOut& entry : handedOut) {
        if (entry.address.load() != nullptr) {
            recordFate("unreleased", entry);
        }
    }
}
#endif

char* handOut(const std::string& text, const std::string& name) {
    char* copy = strdup(text.c_str());
#ifndef KAVRI_SANITIZED
    for (HandedOut& entry : handedOut) {
        if (entry.address.load() == nullptr) {
            snprintf(entry.name, sizeof entry.name, "%s", name.c_str());
            entry.address.store(copy);
            return copy;
        }
    }
    abort();
#else
    (void)name;
    return copy;
#endif
}

// --------------------------------------------------------------------- messages

// A response or an event.
struct Message {
    std::string name;  // "response1", in the record
    std::string category;
    std::string identifier;
    std::optional<std::string> uuid;  // an event has none
    std::optional<std::string> payload;
    int failedTries = 0;  // how many receives do not find it yet
};

std::string described(const Message& message) {
    std::string text = message.name + "(" + quoted(message.category.c_str()) + ", " +
                       quoted(message.identifier.c_str()) + ", ";
    if (message.uuid) {
        text += quoted(message.uuid->c_str()) + ", ";
    }
    return text + quoted(message.payload ? message.payload->c_str() : nullptr) + ")";
}

}  // namespace

// ------------------------------------------------------ the objects, the state

struct kavri_core_logging {
    int number;
};

struct kavri_core_ipc_initiator {
    int number;
    int receives = 0;
    int answers = 0;
    int events = 0;
    bool subscribed = false;
    std::deque<Message> responses;  // waiting to be received, or for a callback
    std::deque<Message> eventsToCome;
    kavri_core_ipc_initiator_response_callback responseCallback = nullptr;
    void* responseContext = nullptr;
    kavri_core_ipc_initiator_event_callback eventCallback = nullptr;
    void* eventContext = nullptr;
};

namespace {

// Guards all that follows and the initiator's members. Held in a callback only where that
// is asked for, and never destroyed: a case that dies leaves its thread behind when the
// process ends.
std::mutex& stateMutex = *new std::mutex;

// Kept for good: the module does not end what came before a failed initialisation.
std::deque<kavri_core_logging> loggings;

int initiatorsMade = 0;
kavri_core_ipc_initiator* current = nullptr;  // the module has one at a time

// The delivering thread: how often it was asked to deliver, and which of these requests
// were the last when everything had been delivered. Atomic, because the thread sanitizer
// sees no lock that is taken within `sleep`.
std::thread& deliverer = *new std::thread;
std::atomic<unsigned> deliveriesWanted = 0;
std::atomic<unsigned> deliveriesDone = 0;
std::atomic<bool> delivererEnds = false;

int counter = std::stoi(defect("counterStart").value_or("0"));

std::string nameOf(kavri_core_logging_cookie cookie) {
    return cookie == nullptr ? "null" : "logging" + std::to_string(cookie->number);
}

std::string nameOf(const kavri_core_ipc_initiator* initiator) {
    return initiator == nullptr ? "null" : "initiator" + std::to_string(initiator->number);
}

// ------------------------------------------------------------- the test service

std::string payloadOf(const std::string& right) {
    if (const auto bytes = defect("answerBytes")) {
        return std::string(std::stoul(*bytes), 'x');
    }
    return defect("answerPayload").value_or(right);
}

void answer(kavri_core_ipc_initiator& initiator, const Message& request,
            const std::string& payload) {
    const int number = ++initiator.answers;
    Message response = request;
    response.name = "response" + std::to_string(number);
    response.uuid = defect("answerUuidPrefix").value_or("") + *request.uuid;
    response.payload = payloadOf(payload);
    if (defect("answerPayloadMissing")) {
        response.payload = std::nullopt;
    }
    if (number == 3 && defect("thirdAnswerAtTry")) {
        response.failedTries = std::stoi(*defect("thirdAnswerAtTry")) - 1;
    }
    initiator.responses.push_back(response);
}

void publish(kavri_core_ipc_initiator& initiator, const Message& request) {
    const int number = ++initiator.events;
    if (initiator.subscribed) {
        Message event = request;
        event.name = "event" + std::to_string(number);
        event.uuid = std::nullopt;
        initiator.eventsToCome.push_back(event);
    }
}

void serve(kavri_core_ipc_initiator& initiator, const Message& request) {
    const std::string& command = request.identifier;
    if (command == "echo") {
        answer(initiator, request, *request.payload);
    } else if (command == "static_response") {
        answer(initiator, request, "my static payload");
    } else if (command == "get_repeat_count") {
        answer(initiator, request, std::to_string(counter));
    } else if (command == "clr_repeat_count") {
        counter = 0;
    } else if (command == "inc_repeat_count") {
        ++counter;
    } else if (command == "event") {
        publish(initiator, request);
        if (defect("eventAnswered")) {
            answer(initiator, request, "published");
        }
    }
}

// --------------------------------------------------------------------- delivery

// The four strings as a receiver gets them. Null where the message has none.
struct Strings {
    char* category;
    char* identifier;
    char* uuid;
    char* payload;
};

Strings handOut(const Message& message) {
    const auto text = [&](const char* field, const std::optional<std::string>& value) -> char* {
        const bool missing = !value || defectIs("deliveryTextMissing", field);
        return missing ? nullptr : handOut(*value, message.name + " " + field);
    };
    return {text("targetCategory", message.category), text("targetIdentifier", message.identifier),
            text("uuid", message.uuid), text("payload", message.payload)};
}

// Calls a callback, by way of `deliver`, with the first of the messages.
template <typename Deliver>
void deliverFirst(std::unique_lock<std::mutex>& lock, std::deque<Message>& messages, void* context,
                  Deliver deliver) {
    const Message message = messages.front();
    messages.pop_front();
    if (!deliveryIs("underLock")) {
        lock.unlock();
    }
    record("deliver " + described(message) + " " + hexadecimal(context));
    Strings strings = handOut(message);
    deliver(strings, context);
    if (!lock.owns_lock()) {
        lock.lock();
    }
}

// Delivers what there is for the current initiator.
void deliverAll(std::unique_lock<std::mutex>& lock) {
    while (current != nullptr) {
        if (current->responseCallback != nullptr && !current->responses.empty()) {
            deliverFirst(lock, current->responses, current->responseContext,
                         [callback = current->responseCallback](Strings& strings, void* context) {
                             callback(&strings.category, &strings.identifier, &strings.uuid,
                                      &strings.payload, context);
                         });
        } else if (current->eventCallback != nullptr && !current->eventsToCome.empty()) {
            deliverFirst(lock, current->eventsToCome, current->eventContext,
                         [callback = current->eventCallback](Strings& strings, void* context) {
                             callback(&strings.category, &strings.identifier, &strings.payload,
                                      context);
                         });
        } else {
            return;
        }
    }
}

void runDeliverer() {
    unsigned wanted = 0;
    while (true) {
        deliveriesWanted.wait(wanted);
        if (delivererEnds) {
            return;
        }
        wanted = deliveriesWanted;
        {
            std::unique_lock<std::mutex> lock(stateMutex);
            deliverAll(lock);
        }
        deliveriesDone = wanted;
        deliveriesDone.notify_all();
    }
}

// The number of the request.
unsigned wantDelivery() {
    const unsigned number = ++deliveriesWanted;
    deliveriesWanted.notify_all();
    return number;
}

void waitForDelivery(unsigned number) {
    for (unsigned done = deliveriesDone; done < number; done = deliveriesDone) {
        deliveriesDone.wait(done);
    }
}

// What a send does about deliveries before it returns.
void deliverAfterSend() {
    if (deliveryIs("inSend")) {
        std::unique_lock<std::mutex> lock(stateMutex);
        deliverAll(lock);
    } else if (deliveryIs("beforeReturn")) {
        waitForDelivery(wantDelivery());
    } else if (!deliveryIs("inSleep")) {
        wantDelivery();
    }
}

void stopDeliverer() {
    delivererEnds = true;
    wantDelivery();
    deliverer.join();
}

// Signals are for the program's threads, not for this one.
void startDeliverer() {
    if (deliverer.joinable()) {
        stopDeliverer();
    }
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    deliveriesWanted = 0;
    deliveriesDone = 0;
    delivererEnds = false;
    deliverer = std::thread(runDeliverer);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// -------------------------------------------------------------------- receiving

void store(const Message& message, char** targetCategory, char** targetIdentifier, char** uuid,
           char** payload) {
    record("store " + described(message));
    const Strings strings = handOut(message);
    *targetCategory = strings.category;
    *targetIdentifier = strings.identifier;
    *uuid = strings.uuid;
    *payload = strings.payload;
}

// Takes the next response if there is one yet. With a healthy service one is there
// at once; where none is, a real library would wait, for ever perhaps.
std::optional<Message> takeResponse(kavri_core_ipc_initiator& initiator) {
    if (initiator.responses.empty() || initiator.responses.front().failedTries-- > 0) {
        return std::nullopt;
    }
    const Message message = initiator.responses.front();
    initiator.responses.pop_front();
    return message;
}

// Installs a callback, or removes it.
template <typename Callback>
kavri_core_status install(const std::string& kind, const kavri_core_ipc_initiator* initiator,
                          Callback callback, void* context, Callback& installed,
                          void*& installedContext) {
    const std::lock_guard<std::mutex> lock(stateMutex);
    installed = callback;
    installedContext = context;
    return returned(call("ipc_initiator_" + kind + "_receive_callback", nameOf(initiator),
                         functionName(reinterpret_cast<const void*>(callback)),
                         hexadecimal(context)));
}

}  // namespace

// ---------------------------------------------------------- the twelve functions

kavri_core_status kavri_core_init() {
    return returned(call("init"));
}

kavri_core_status kavri_core_deinit() {
    return returned(call("deinit"));
}

kavri_core_status kavri_core_logging_init(const char* name, kavri_core_logging_cookie* cookie) {
    const std::string made = call("logging_init", quoted(name), held(cookie));
    loggings.push_back({static_cast<int>(loggings.size()) + 1});
    *cookie = &loggings.back();
    return returned(made, KAVRI_CORE_STATUS_NO_ERROR, " " + nameOf(*cookie));
}

kavri_core_status kavri_core_logging_deinit(kavri_core_logging_cookie cookie) {
    return returned(call("logging_deinit", nameOf(cookie)));
}

kavri_core_status kavri_core_ipc_initiator_init(kavri_core_logging_cookie cookie, void* options,
                                                kavri_core_ipc_initiator** initiator) {
    const std::string made = call("ipc_initiator_init", nameOf(cookie),
                                  options == nullptr ? "null" : "given", held(initiator));
    if (defect("initiatorMissing")) {
        return returned(made);
    }
    *initiator = new kavri_core_ipc_initiator;
    (*initiator)->number = ++initiatorsMade;
    {
        const std::lock_guard<std::mutex> lock(stateMutex);
        current = *initiator;
    }
    startDeliverer();
    return returned(made, KAVRI_CORE_STATUS_NO_ERROR, " " + nameOf(*initiator));
}

kavri_core_status kavri_core_ipc_deinit(kavri_core_ipc_initiator* initiator) {
    const std::string made = call("ipc_deinit", nameOf(initiator));
    stopDeliverer();
    {
        const std::lock_guard<std::mutex> lock(stateMutex);
        current = nullptr;
    }
    delete initiator;
    return returned(made);
}

kavri_core_status kavri_core_ipc_initiator_command_send(kavri_core_ipc_initiator* initiator,
                                                        const char* targetCategory,
                                                        const char* targetIdentifier,
                                                        const char* uuid, const char* payload) {
    std::unique_lock<std::mutex> lock(stateMutex);
    const std::string made =
        call("ipc_initiator_command_send", nameOf(initiator), quoted(targetCategory),
             quoted(targetIdentifier), quoted(uuid), quoted(payload));
    disturbProcess();
    if (!defect("doesNothing")) {
        serve(*initiator, Message{"", targetCategory, targetIdentifier, uuid, payload});
    }
    const kavri_core_status status =
        returned(made, defect("sendsMisreported") ? KAVRI_CORE_STATUS_IPC_TOO_LARGE
                                                  : KAVRI_CORE_STATUS_NO_ERROR);
    lock.unlock();
    deliverAfterSend();
    return status;
}

kavri_core_status kavri_core_ipc_initiator_response_receive(kavri_core_ipc_initiator* initiator,
                                                            int timeout, char** targetCategory,
                                                            char** targetIdentifier, char** uuid,
                                                            char** payload) {
    const std::lock_guard<std::mutex> lock(stateMutex);
    const std::string made =
        call("ipc_initiator_response_receive", nameOf(initiator), std::to_string(timeout),
             held(targetCategory), held(targetIdentifier), held(uuid), held(payload));
    ++initiator->receives;
    if (initiator->responseCallback != nullptr) {
        if (defectIs("refusedReceiveStores", std::to_string(timeout))) {
            const Message uncalledFor{"response0", "test", "none", "0", "uncalled for"};
            store(uncalledFor, targetCategory, targetIdentifier, uuid, payload);
        }
        return returned(made, KAVRI_CORE_STATUS_IPC_FAILED);
    }
    const std::optional<Message> message = takeResponse(*initiator);
    if (!message) {
        return returned(made, KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
    }
    store(*message, targetCategory, targetIdentifier, uuid, payload);
    return returned(made, defectIs("receiveMisreported", std::to_string(initiator->receives))
                              ? KAVRI_CORE_STATUS_IPC_CONNECTION_LOST
                              : KAVRI_CORE_STATUS_NO_ERROR);
}

kavri_core_status kavri_core_ipc_initiator_response_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_response_callback callback,
    void* context) {
    return install("response", initiator, callback, context, initiator->responseCallback,
                   initiator->responseContext);
}

kavri_core_status kavri_core_ipc_initiator_event_receive_callback(
    kavri_core_ipc_initiator* initiator, kavri_core_ipc_initiator_event_callback callback,
    void* context) {
    return install("event", initiator, callback, context, initiator->eventCallback,
                   initiator->eventContext);
}

#ifndef KAVRI_LACKING
kavri_core_status kavri_core_ipc_initiator_event_subscribe(kavri_core_ipc_initiator* initiator,
                                                           const char* category) {
    const std::lock_guard<std::mutex> lock(stateMutex);
    initiator->subscribed = true;
    return returned(call("ipc_initiator_event_subscribe", nameOf(initiator), quoted(category)));
}

kavri_core_status kavri_core_ipc_initiator_event_unsubscribe(kavri_core_ipc_initiator* initiator,
                                                             const char* category) {
    const std::lock_guard<std::mutex> lock(stateMutex);
    initiator->subscribed = false;
    return returned(call("ipc_initiator_event_unsubscribe", nameOf(initiator), quoted(category)));
}
#endif

// -------------------------------------------- in place of the C library's functions

extern "C" {

// Returns when everything that was going to come has been delivered. So no callback is
// under way when the module removes it.
unsigned int sleep(unsigned int seconds) {
    record("sleep(" + std::to_string(seconds) + ")");
    if (deliverer.joinable()) {
        waitForDelivery(wantDelivery());
    }
    return 0;
}

int usleep(useconds_t microseconds) {
    record("usleep(" + std::to_string(microseconds) + ")");
    return 0;
}

#ifndef KAVRI_SANITIZED
void __libc_free(void* address);

void free(void* address) noexcept {
    const int savedErrno = errno;
    if (address != nullptr) {
        noteRelease(address);
    }
    errno = savedErrno;
    __libc_free(address);
}
#endif
}
