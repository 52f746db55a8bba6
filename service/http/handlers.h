#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "CallHistory.h"
#include "Service.h"
#include "http/Events.h"
#include "http/WaitingRoom.h"
#include "http/Workers.h"
#include "http/access.h"
#include "http/message.h"

/// What is done for each route. A handler answers through the call's responder, now or later, or throws
/// Rejection or JournalError.
namespace fiscorad::http {

/// Takes one line for the log.
using Warn = std::function<void(const std::string&)>;

/// What handlers work with.
struct Context {
    Service& service;
    Workers& workers;
    WaitingRoom& waiting;
    Events& events;
    Doorkeeper& doorkeeper;
    const CallHistory& calls;
    /// In Prometheus' text format.
    std::function<std::string()> metrics;
    std::atomic<bool>& stopped;  ///< no new documents
    std::atomic<std::size_t>& maxDocumentBytes;
    std::chrono::milliseconds formWait;  ///< how long the form API waits for an outcome
    Warn warn;
};

struct Call {
    Request request;
    Kind kind = Kind::Sale;  ///< of the documents that the route is about
    std::string name;        ///< the part of the path that names a document, an operation or a function
    Responder respond;
    Identity who;
};

using Handler = void (*)(Context&, Call&);

void submit(Context& context, Call& call);
void show(Context& context, Call& call);
void withdraw(Context& context, Call& call);
void list(Context& context, Call& call);
void sendSignedDocument(Context& context, Call& call);

void operate(Context& context, Call& call);
void submitForm(Context& context, Call& call);

void showDevice(Context& context, Call& call);
void streamEvents(Context& context, Call& call);
void summarize(Context& context, Call& call);
void showCalls(Context& context, Call& call);
void showAttempts(Context& context, Call& call);
void decide(Context& context, Call& call);
void diagnoseDevice(Context& context, Call& call);
void confirmDevice(Context& context, Call& call);

void showMetrics(Context& context, Call& call);
void sendPage(Context& context, Call& call);
void sendStyle(Context& context, Call& call);
void sendScript(Context& context, Call& call);
void sendIcon(Context& context, Call& call);
void signIn(Context& context, Call& call);
void showSession(Context& context, Call& call);
void signOut(Context& context, Call& call);

void showHealth(Context& context, Call& call);
void showReadiness(Context& context, Call& call);
void sendDescription(Context& context, Call& call);

// For handlers to share:

Response jsonResponse(int status, const nlohmann::json& body);
/// Answers later, without holding a thread, if the refusal says so.
void refuse(Context& context, const Responder& respond, Doorkeeper::Refusal refusal);
/// Runs `answer`, and answers with the problem instead if it throws.
void answerOr(const Warn& warn, const Responder& respond, const std::function<void()>& answer);
/// Takes the submission into the queue, and returns its document. Throws Rejection if that cannot be.
Document accept(Context& context, const Submission& submission);
/// The problem to answer with if the document ended in a failure; none if it did not.
std::optional<Response> failureOf(const Document& document);
/// Throws Rejection unless the operation was called.
void requireDone(const OperationResult& result);

}  // namespace fiscorad::http
