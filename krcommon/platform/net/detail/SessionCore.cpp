#include <krcommon/platform/net/detail/SessionCore.h>

#include <krcommon/platform/net/detail/Transfer.h>
#include <krcommon/platform/net/detail/TrustEvaluator.h>
#include <krcommon/platform/net/detail/URLErrors.h>

#include <openssl/err.h>

#include <unistd.h>

#include <algorithm>
#include <condition_variable>

namespace krcommon::platform::detail {

namespace {

int onMultiSocket(CURL*, curl_socket_t fd, int what, void* user, void*) {
    static_cast<SessionCore*>(user)->watchSocket(fd, what);
    return 0;
}

int onMultiTimer(CURLM*, long milliseconds, void* user) {
    static_cast<SessionCore*>(user)->setCurlTimer(milliseconds);
    return 0;
}

// How many idle connections a session keeps for reuse: four hosts' worth at the per-host
// limit, at least 16; 64 when hosts have no limit.
long idleConnectionLimit(long perHost) { return perHost <= 0 ? 64 : std::max(4 * perHost, 16L); }

}  // namespace

// A challenge put to the delegate. The engine waits for the answer a short while inside
// the handshake; an answer given later goes to the engine as a command of its own. The
// first answer counts, and one never given (the completion dropped) counts as a refusal.
struct ChallengeAnswer : std::enable_shared_from_this<ChallengeAnswer> {
    std::mutex mutex;
    std::condition_variable arrived;
    bool given = false;
    bool late = false;  // the engine no longer waits: the answer restarts or ends the transfer
    URLSessionAuthChallengeDisposition disposition = URLSessionAuthChallengeDisposition::CancelAuthenticationChallenge;
    std::shared_ptr<URLCredential> credential;

    std::shared_ptr<ServerTrust> trust;
    std::weak_ptr<SessionCore> core;
    std::weak_ptr<TransferLink> link;

    void give(URLSessionAuthChallengeDisposition d, std::shared_ptr<URLCredential> c) {
        std::unique_lock lock(mutex);
        if (given) return;
        given = true;
        disposition = d;
        credential = std::move(c);
        const bool toEngine = late;
        lock.unlock();
        if (!toEngine) {
            arrived.notify_all();
            return;
        }
        auto owner = core.lock();
        auto target = link.lock();
        if (owner && target) {
            TransferEngine::shared().post([owner, target, self = shared_from_this()] {
                owner->applyLateAnswer(target, self);
            });
        }
    }

    // On the engine: true when the answer came within `wait`; otherwise it will come late.
    bool waitFor(std::chrono::milliseconds wait) {
        std::unique_lock lock(mutex);
        if (arrived.wait_for(lock, wait, [this] { return given; })) return true;
        late = true;
        return false;
    }

    [[nodiscard]] bool isGiven() {
        std::lock_guard lock(mutex);
        return given;
    }

    // What the answer means for the connection: accepted, or the error the task ends with.
    [[nodiscard]] std::shared_ptr<Error> refusal(const std::shared_ptr<URL>& url) const {
        switch (disposition) {
            case URLSessionAuthChallengeDisposition::UseCredential:
                if (credential && credential->serverTrust() == trust) return nullptr;
                break;
            case URLSessionAuthChallengeDisposition::PerformDefaultHandling:
                if (trust->isTrusted()) return nullptr;
                return urlError(URLErrorServerCertificateUntrusted, url, trust->failureReason());
            default: break;
        }
        return urlError(URLErrorCancelled, url, trust->failureReason());
    }
};

namespace {

// The completion handed to the delegate holds this: dropped unanswered, it refuses.
struct AnswerGuard {
    explicit AnswerGuard(std::shared_ptr<ChallengeAnswer> a) : answer(std::move(a)) {}
    AnswerGuard(const AnswerGuard&) = delete;
    AnswerGuard& operator=(const AnswerGuard&) = delete;
    ~AnswerGuard() { answer->give(URLSessionAuthChallengeDisposition::CancelAuthenticationChallenge, nullptr); }
    std::shared_ptr<ChallengeAnswer> answer;
};

// Answers a response once: Allow releases the task's held events, Cancel (or no answer at
// all, the completion dropped) stops the task.
struct ResponseAnswer {
    std::shared_ptr<SessionCore> core;
    std::shared_ptr<ResponseGate> gate;
    std::shared_ptr<URLSessionTask> task;
    std::atomic<bool> answered{false};

    void give(URLSessionResponseDisposition disposition) {
        if (answered.exchange(true)) return;
        const bool allow = disposition != URLSessionResponseDisposition::Cancel;
        if (core->events->answer(gate, allow) && !allow) task->cancel();
    }
    ~ResponseAnswer() { give(URLSessionResponseDisposition::Cancel); }
};

}  // namespace

// ---------------------------------------------------------------- any thread

SessionCore::SessionCore(URLSessionConfiguration config, std::weak_ptr<URLSessionDelegate> sessionDelegate,
                         std::shared_ptr<OperationQueue> delegateQueue)
    : configuration(std::move(config)),
      delegate(std::move(sessionDelegate)),
      events(std::make_shared<EventQueue>(delegateQueue ? std::move(delegateQueue)
                                                        : std::make_shared<OperationQueue>(1))) {
    // What the delegate implements, looked up once, so that an event finds its receiver without
    // a type search. A pointer is used only while `delegate` locks, which keeps the object alive.
    if (auto alive = delegate.lock()) {
        challengeReceiver_ = dynamic_cast<URLSessionChallengeDelegate*>(alive.get());
        responseReceiver_ = dynamic_cast<URLSessionDataResponseDelegate*>(alive.get());
        dataReceiver_ = dynamic_cast<URLSessionDataReceiveDelegate*>(alive.get());
        downloadReceiver_ = dynamic_cast<URLSessionDownloadFinishDelegate*>(alive.get());
        completionReceiver_ = dynamic_cast<URLSessionTaskCompletionDelegate*>(alive.get());
    }
    for (const std::string& pem : configuration.additionalTrustAnchorsPEM()) {
        auto read = readPEMCertificates(pem);
        if (read.empty()) anchorsValid_ = false;
        anchors_.insert(anchors_.end(), read.begin(), read.end());
    }
}

SessionCore::~SessionCore() {
    // A multi handle is still here only when the engine stopped before it could close it,
    // as the process exits: nothing else touches it now.
    if (multi_) {
        curl_multi_setopt(multi_, CURLMOPT_SOCKETFUNCTION, nullptr);
        curl_multi_setopt(multi_, CURLMOPT_TIMERFUNCTION, nullptr);
        for (auto& transfer : transfers_) curl_multi_remove_handle(multi_, transfer->easy);
    }
    transfers_.clear();
    parked_.clear();
    idle_.clear();
    if (multi_) curl_multi_cleanup(multi_);
    for (X509* anchor : anchors_) X509_free(anchor);
    if (trustStore_) X509_STORE_free(trustStore_);
}

void SessionCore::start(std::shared_ptr<URLSessionTask> task) {
    running.fetch_add(1, std::memory_order_relaxed);
    bool accepted = false;
    {
        std::lock_guard lock(liveMutex_);
        if (!invalidated_) {
            live_.push_back(task);
            accepted = true;
        }
    }
    if (!accepted) {
        // The session is going away: the task ends cancelled, without events.
        claimCompletion(*task, urlError(URLErrorCancelled, task->originalRequest().URL()));
        return;
    }
    // While the engine waits, the request goes out from here at once; otherwise the engine
    // starts it at its next round.
    auto& engine = TransferEngine::shared();
    if (engine.runRoundIfIdle([&] { startOnEngine(task); })) return;
    engine.post([self = shared_from_this(), task = std::move(task)] { self->startOnEngine(task); });
}

void SessionCore::cancel(std::shared_ptr<URLSessionTask> task) {
    TransferEngine::shared().post([self = shared_from_this(), task = std::move(task)] { self->cancelOnEngine(task); });
}

void SessionCore::invalidate() {
    events->stop();
    std::vector<std::shared_ptr<URLSessionTask>> ending;
    {
        std::lock_guard lock(liveMutex_);
        invalidated_ = true;
        ending.swap(live_);
    }
    for (const auto& task : ending) claimCompletion(*task, urlError(URLErrorCancelled, task->originalRequest().URL()));
    auto& engine = TransferEngine::shared();
    if (engine.runRoundIfIdle([this] { closeOnEngine(); })) return;
    engine.post([self = shared_from_this()] { self->closeOnEngine(); });
}

bool SessionCore::claimCompletion(URLSessionTask& task, const std::shared_ptr<Error>& error) {
    if (task.ended_.exchange(true)) return false;
    {
        std::lock_guard lock(task.mutex_);
        task.error_ = error;
    }
    task.state_.store(URLSessionTaskState::Completed, std::memory_order_release);
    running.fetch_sub(1, std::memory_order_relaxed);
    std::lock_guard lock(liveMutex_);
    const auto found = std::find_if(live_.begin(), live_.end(), [&](const auto& t) { return t.get() == &task; });
    if (found != live_.end()) {
        std::swap(*found, live_.back());
        live_.pop_back();
    }
    return true;
}

void SessionCore::countReceived(URLSessionTask& task, std::size_t bytes) noexcept {
    task.bytesReceived_.fetch_add(static_cast<std::int64_t>(bytes), std::memory_order_relaxed);
}

// ---------------------------------------------------------------- engine thread: commands

bool SessionCore::ensureMulti() {
    if (multi_) return true;
    multi_ = curl_multi_init();
    if (!multi_) return false;
    curl_multi_setopt(multi_, CURLMOPT_SOCKETFUNCTION, &onMultiSocket);
    curl_multi_setopt(multi_, CURLMOPT_SOCKETDATA, this);
    curl_multi_setopt(multi_, CURLMOPT_TIMERFUNCTION, &onMultiTimer);
    curl_multi_setopt(multi_, CURLMOPT_TIMERDATA, this);
    curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, configuration.HTTPMaximumConnectionsPerHost());
    // Idle connections stay open for reuse. libcurl's own cache limit follows the number of
    // transfers running at the moment, so a lull between bursts would close connections the
    // next burst must open again.
    curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, idleConnectionLimit(configuration.HTTPMaximumConnectionsPerHost()));
    selfWhileAttached_ = shared_from_this();
    return true;
}

void SessionCore::startOnEngine(const std::shared_ptr<URLSessionTask>& task) {
    if (closed_ || task->ended_.load()) return;  // ended by the session's invalidation
    const auto& url = task->originalRequest().URL();
    if (task->state() != URLSessionTaskState::Running) {
        complete(task, urlError(URLErrorCancelled, url));
        return;
    }
    if (!ensureMulti()) {
        complete(task, urlError(URLErrorUnknown, url, "out of memory"));
        return;
    }
    std::unique_ptr<Transfer> transfer;
    if (!idle_.empty()) {
        transfer = std::move(idle_.back());
        idle_.pop_back();
    } else {
        transfer = Transfer::make(*this);
    }
    if (!transfer) {
        complete(task, urlError(URLErrorUnknown, url, "out of memory"));
        return;
    }
    if (auto refused = transfer->prepare(task)) {
        recycle(std::move(transfer));
        complete(task, std::move(refused));
        return;
    }
    if (curl_multi_add_handle(multi_, transfer->easy) != CURLM_OK) {
        transfer.reset();  // handle and all
        complete(task, urlError(URLErrorUnknown, url, "the transfer could not be started"));
        return;
    }
    transfer->slot = transfers_.size();
    noteIdleDeadline(*transfer);
    transfers_.push_back(std::move(transfer));
    TransferEngine::shared().touch(*this);
}

void SessionCore::cancelOnEngine(const std::shared_ptr<URLSessionTask>& task) {
    if (closed_) return;
    for (auto* list : {&transfers_, &parked_}) {
        for (auto& transfer : *list) {
            if (transfer->task != task) continue;
            transfer->unanswered.reset();
            transfer->forcedError = urlError(URLErrorCancelled, task->originalRequest().URL());
            finishTransfer(*transfer, CURLE_ABORTED_BY_CALLBACK);
            return;
        }
    }
}

void SessionCore::closeOnEngine() {
    closed_ = true;
    for (auto& transfer : transfers_) curl_multi_remove_handle(multi_, transfer->easy);
    transfers_.clear();
    parked_.clear();
    idle_.clear();
    withPendingData_.clear();
    if (multi_) curl_multi_cleanup(multi_);  // closes the session's connections
    multi_ = nullptr;
    TransferEngine::shared().forget(*this);
    auto release = std::move(selfWhileAttached_);  // whoever runs this holds the session still
}

void SessionCore::resumeBody(const std::shared_ptr<TransferLink>& link) {
    Transfer* t = closed_ ? nullptr : link->transfer;
    if (!t || !t->paused) return;
    t->paused = false;
    t->progressed();
    noteIdleDeadline(*t);
    curl_easy_pause(t->easy, CURLPAUSE_CONT);  // may hand over the bytes it kept at once
    TransferEngine::shared().touch(*this);
}

void SessionCore::applyLateAnswer(const std::shared_ptr<TransferLink>& link,
                                  const std::shared_ptr<ChallengeAnswer>& answer) {
    Transfer* t = closed_ ? nullptr : link->transfer;
    // Still on the multi handle, the transfer meets its answer when its failed handshake ends.
    if (!t || t->unanswered != answer || !t->parked) return;
    finishTransfer(*t, CURLE_PEER_FAILED_VERIFICATION);
    TransferEngine::shared().touch(*this);
}

// ---------------------------------------------------------------- engine thread: the multi handle

void SessionCore::watchSocket(curl_socket_t fd, int what) { TransferEngine::shared().watchSocket(fd, what, *this); }

void SessionCore::setCurlTimer(long milliseconds) {
    if (milliseconds < 0) {
        curlDeadline_.reset();
    } else if (milliseconds == 0) {
        curlDeadline_.reset();
        kick_ = true;
    } else {
        curlDeadline_ = Clock::now() + std::chrono::milliseconds(milliseconds);
    }
    TransferEngine::shared().touch(*this);
}

void SessionCore::socketAction(curl_socket_t fd, int readiness) {
    if (!multi_) return;
    int stillRunning = 0;
    curl_multi_socket_action(multi_, fd, readiness, &stillRunning);
    readDone();
}

void SessionCore::onSocket(curl_socket_t fd, int readiness) { socketAction(fd, readiness); }

void SessionCore::onDeadline(Clock::time_point now) {
    if (curlDeadline_ && *curlDeadline_ <= now) {
        curlDeadline_.reset();
        socketAction(CURL_SOCKET_TIMEOUT, 0);
    }
    if (idleCheck_ && *idleCheck_ <= now) expireIdle(now);
}

void SessionCore::endOfRound() {
    for (int i = 0; kick_ && i < 4; ++i) {
        kick_ = false;
        socketAction(CURL_SOCKET_TIMEOUT, 0);
    }
    if (kick_) {  // asked again and again: the next round
        kick_ = false;
        curlDeadline_ = TransferEngine::shared().roundTime();
    }
    for (Transfer* t : withPendingData_) flushData(*t);
    withPendingData_.clear();
    // What the round queued for the delegate goes to its queue now, with one wake-up.
    if (handOver_) {
        handOver_ = false;
        events->schedule();
    }
    std::optional<Clock::time_point> next = curlDeadline_;
    if (idleCheck_ && (!next || *idleCheck_ < *next)) next = idleCheck_;
    TransferEngine::shared().setDeadline(*this, next);
}

void SessionCore::readDone() {
    while (true) {
        int left = 0;
        CURLMsg* message = curl_multi_info_read(multi_, &left);
        if (!message) break;
        if (message->msg != CURLMSG_DONE) continue;
        Transfer* done = nullptr;
        curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &done);
        if (done) finishTransfer(*done, message->data.result);
    }
}

void SessionCore::noteIdleDeadline(const Transfer& transfer) {
    const auto due = transfer.lastProgress + transfer.idleTimeout;
    if (!idleCheck_ || due < *idleCheck_) idleCheck_ = due;
}

void SessionCore::expireIdle(Clock::time_point now) {
    // Progress only moves deadlines later, so the earliest one found here is when to look again.
    idleCheck_.reset();
    std::vector<Transfer*> expired;
    for (auto* list : {&transfers_, &parked_}) {
        for (auto& transfer : *list) {
            if (transfer->paused) continue;  // waiting for the delegate queue is not idleness
            if (now - transfer->lastProgress >= transfer->idleTimeout) {
                expired.push_back(transfer.get());
            } else {
                noteIdleDeadline(*transfer);
            }
        }
    }
    for (Transfer* t : expired) {
        t->unanswered.reset();  // a challenge still open: the task times out, once
        t->forcedError = urlError(URLErrorTimedOut, t->task->originalRequest().URL());
        finishTransfer(*t, CURLE_OPERATION_TIMEDOUT);
    }
}

std::unique_ptr<Transfer> SessionCore::detach(Transfer& t) {
    std::unique_ptr<Transfer> owned;
    if (t.parked) {
        const auto found = std::find_if(parked_.begin(), parked_.end(), [&](const auto& p) { return p.get() == &t; });
        owned = std::move(*found);
        parked_.erase(found);
        t.parked = false;
        return owned;
    }
    owned = std::move(transfers_[t.slot]);
    if (t.slot + 1 != transfers_.size()) {
        transfers_[t.slot] = std::move(transfers_.back());
        transfers_[t.slot]->slot = t.slot;
    }
    transfers_.pop_back();
    curl_multi_remove_handle(multi_, t.easy);
    return owned;
}

void SessionCore::park(Transfer& t) {
    if (t.parked) return;
    if (t.hasPendingData) {
        flushData(t);
        std::erase(withPendingData_, &t);
    }
    auto owned = detach(t);
    t.parked = true;
    parked_.push_back(std::move(owned));
}

void SessionCore::restart(Transfer& t) {
    park(t);
    auto owned = detach(t);
    t.sawStatusLine = false;
    t.lastStatus = 0;
    t.forcedError.reset();
    t.errorBuffer[0] = '\0';
    t.prepareRestartAfterRedirect();
    t.restartURL.clear();
    t.progressed();
    if (curl_multi_add_handle(multi_, t.easy) != CURLM_OK) {
        auto task = t.task;
        recycle(std::move(owned));
        complete(task, urlError(URLErrorUnknown, task->originalRequest().URL(), "the transfer could not be restarted"));
        return;
    }
    t.slot = transfers_.size();
    noteIdleDeadline(t);
    transfers_.push_back(std::move(owned));
}

void SessionCore::recycle(std::unique_ptr<Transfer> transfer) {
    if (closed_ || idle_.size() >= 64) return;  // destroyed, handle and all
    transfer->endRequest();
    idle_.push_back(std::move(transfer));
}

void SessionCore::finishTransfer(Transfer& t, CURLcode code) {
    // A handshake failed on purpose while the delegate had not answered its challenge.
    if (const auto answer = t.unanswered) {
        if (!answer->isGiven()) {
            park(t);  // until the answer comes, or the request's timeout
            return;
        }
        t.unanswered.reset();
        t.forcedError = answer->refusal(t.task->originalRequest().URL());
        if (!t.forcedError) {
            t.accepted = answer->trust;  // for the restarted handshake, with this chain and host only
            restart(t);
            return;
        }
    }
    std::unique_ptr<Transfer> owned = detach(t);
    if (t.hasPendingData) {
        flushData(t);
        std::erase(withPendingData_, &t);
    }
    const auto& url = t.task->originalRequest().URL();
    std::shared_ptr<Error> error = t.forcedError;
    if (!error && t.task->state() == URLSessionTaskState::Canceling) error = urlError(URLErrorCancelled, url);
    if (!error && code != CURLE_OK) error = urlError(codeForCurl(code, t.sawStatusLine), url, t.errorBuffer);
    if (!error && !t.responseDelivered) deliverResponse(t);

    if (t.isDownload && !error) {
        ::close(t.downloadFd);
        t.downloadFd = -1;
        auto downloadTask = std::dynamic_pointer_cast<URLSessionDownloadTask>(t.task);
        handOver();
        events->postForTask(t.gate, [self = shared_from_this(), downloadTask, path = std::move(t.downloadPath)](bool cancelled) {
            auto session = self->session.lock();
            auto alive = self->delegate.lock();
            auto* receiver = alive ? self->downloadReceiver_ : nullptr;
            if (session && receiver && !cancelled) {
                receiver->didFinishDownloadingToURL(session, downloadTask, URL::fileURLWithPath(path));
            }
            ::unlink(path.c_str());
        }, false);
        t.downloadPath.clear();
    }

    auto task = t.task;
    auto gate = t.gate;
    recycle(std::move(owned));
    complete(task, std::move(error), gate);
}

void SessionCore::complete(const std::shared_ptr<URLSessionTask>& task, std::shared_ptr<Error> error,
                           const std::shared_ptr<ResponseGate>& gate) {
    if (!claimCompletion(*task, error)) return;
    handOver();
    events->postForTask(gate, [self = shared_from_this(), task, error = std::move(error)](bool cancelled) mutable {
        if (cancelled && (!error || error->code() != URLErrorCancelled)) {
            // The delegate refused the response after the transfer had finished.
            error = urlError(URLErrorCancelled, task->originalRequest().URL());
            std::lock_guard lock(task->mutex_);
            task->error_ = error;
        }
        auto session = self->session.lock();
        auto alive = self->delegate.lock();
        auto* receiver = alive ? self->completionReceiver_ : nullptr;
        if (session && receiver) receiver->didCompleteWithError(session, task, error);
    }, false);
}

void SessionCore::handOver() {
    if (handOver_) return;
    handOver_ = true;
    TransferEngine::shared().touch(*this);
}

// ---------------------------------------------------------------- engine thread: events

void SessionCore::deliverResponse(Transfer& t) {
    t.responseDelivered = true;
    long status = 0;
    curl_easy_getinfo(t.easy, CURLINFO_RESPONSE_CODE, &status);
    const char* effective = nullptr;
    curl_easy_getinfo(t.easy, CURLINFO_EFFECTIVE_URL, &effective);
    // Unless a redirect was followed, the answer comes from the request's own URL.
    std::shared_ptr<URL> url =
        effective && effective != std::string_view(t.requestedURL) ? URL::URLWithString(effective) : nullptr;
    if (!url) url = t.task->originalRequest().URL();
    // The headers go to the response: nothing reads them from the transfer afterwards.
    auto response = std::make_shared<HTTPURLResponse>(std::move(url), status, std::move(t.responseHeaders));
    {
        std::lock_guard lock(t.task->mutex_);
        t.task->response_ = response;
    }
    const auto& dataTask = t.dataTask;
    if (!dataTask || !responseReceiver_) return;
    t.gate = std::make_shared<ResponseGate>();
    auto answer = std::make_shared<ResponseAnswer>();
    answer->core = shared_from_this();
    answer->gate = t.gate;
    answer->task = dataTask;
    handOver();
    events->post([self = shared_from_this(), dataTask, response, answer] {
        auto session = self->session.lock();
        auto alive = self->delegate.lock();
        auto* receiver = alive ? self->responseReceiver_ : nullptr;
        if (!session || !receiver) return;  // the answer, dropped, cancels
        receiver->didReceiveResponse(session, dataTask, response,
                                     [answer](URLSessionResponseDisposition disposition) { answer->give(disposition); });
    }, false);
}

void SessionCore::flushAtEndOfRound(Transfer& t) {
    withPendingData_.push_back(&t);
    TransferEngine::shared().touch(*this);
}

void SessionCore::flushData(Transfer& t) {
    t.hasPendingData = false;
    if (t.pendingData.empty()) return;
    const std::size_t size = t.pendingData.size();
    t.link->flow.queued.fetch_add(size);
    handOver();
    events->postForTask(t.gate, [self = shared_from_this(), dataTask = t.dataTask, link = t.link,
                                 bytes = std::move(t.pendingData)](bool cancelled) {
        if (!cancelled && dataTask->state() != URLSessionTaskState::Canceling) {
            auto session = self->session.lock();
            auto alive = self->delegate.lock();
            auto* receiver = alive ? self->dataReceiver_ : nullptr;
            if (session && receiver) receiver->didReceiveData(session, dataTask, std::span<const std::uint8_t>(bytes));
        }
        if (link->flow.release(bytes.size())) {
            TransferEngine::shared().post([self, link] { self->resumeBody(link); });
        }
    }, false);
    t.pendingData = Data();
}

bool SessionCore::prepareTLS(SSL_CTX* context) {
    if (!anchorsValid_) return false;
    // One store per session, made once: loading the system's bundle for every connection
    // would hold up every transfer of the process for a tenth of a second each time.
    if (!trustStore_) trustStore_ = makeTrustStore(anchors_);
    if (!trustStore_) return false;
    SSL_CTX_set1_cert_store(context, trustStore_);
    return true;
}

// Inside a TLS handshake: evaluate the chain for the host the handshake is for, then ask
// the delegate and wait a short while for its answer.
bool SessionCore::decideTrust(Transfer& t, X509_STORE_CTX* context) {
    const auto& requestURL = t.task->originalRequest().URL();
    const char* effective = nullptr;
    curl_easy_getinfo(t.easy, CURLINFO_EFFECTIVE_URL, &effective);
    const auto connectionURL = effective ? URL::URLWithString(effective) : nullptr;
    const auto& url = connectionURL ? connectionURL : requestURL;
    // The name the handshake announced (SNI); an IP literal announces none.
    auto* ssl = static_cast<SSL*>(X509_STORE_CTX_get_ex_data(context, SSL_get_ex_data_X509_STORE_CTX_idx()));
    const char* announced = ssl ? SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name) : nullptr;
    const std::string host = announced ? announced : (url && url->host() ? *url->host() : std::string());
    const int port = url && url->port() ? *url->port() : 443;

    X509* leaf = X509_STORE_CTX_get0_cert(context);
    STACK_OF(X509)* presented = X509_STORE_CTX_get0_untrusted(context);
    const TrustVerdict verdict = evaluateServerTrust(X509_STORE_CTX_get0_store(context), leaf, presented, host);
    std::vector<Data> chain = encodedChain(leaf, presented);

    auto accept = [&] {
        X509_STORE_CTX_set_error(context, X509_V_OK);
        return true;
    };
    auto refuse = [&](std::shared_ptr<Error> error) {
        t.forcedError = std::move(error);
        X509_STORE_CTX_set_error(context, X509_V_ERR_APPLICATION_VERIFICATION);
        return false;
    };
    // The delegate accepted this very chain for this host after its handshake had failed.
    if (const auto accepted = std::move(t.accepted); accepted && accepted->host() == host && accepted->certificates() == chain) {
        return accept();
    }
    auto trust = std::make_shared<ServerTrust>(
        host, std::move(chain),
        TrustEvaluation{0, verdict.trusted ? TrustResultType::Unspecified : TrustResultType::RecoverableTrustFailure},
        verdict.reason);
    if (delegate.expired() || session.expired()) return refuse(urlError(URLErrorCancelled, requestURL, verdict.reason));
    if (!challengeReceiver_) {
        if (verdict.trusted) return accept();
        return refuse(urlError(URLErrorServerCertificateUntrusted, requestURL, verdict.reason));
    }

    auto answer = std::make_shared<ChallengeAnswer>();
    answer->trust = trust;
    answer->core = weak_from_this();
    answer->link = t.link;
    auto challenge = std::make_shared<URLAuthenticationChallenge>(std::make_shared<URLProtectionSpace>(
        host, port, "https", URLProtectionSpace::AuthenticationMethodServerTrust, trust));
    // Ahead of everything else waiting: the engine waits for this one.
    events->postFirst([self = shared_from_this(), challenge, guard = std::make_shared<AnswerGuard>(answer)] {
        auto session = self->session.lock();
        auto alive = self->delegate.lock();
        if (!session || !alive) return;  // the guard refuses
        self->challengeReceiver_->didReceiveChallenge(
            session, challenge, [guard](URLSessionAuthChallengeDisposition d, std::shared_ptr<URLCredential> c) {
                guard->answer->give(d, std::move(c));
            });
    });
    if (answer->waitFor(trustAnswerWait)) {
        auto refused = answer->refusal(requestURL);
        return refused ? refuse(std::move(refused)) : accept();
    }
    // No answer yet: this handshake fails, and the transfer waits off the multi handle for the
    // answer, which restarts it. Nothing of the request has gone to this server yet; after
    // redirects, the restart begins where they led.
    t.unanswered = std::move(answer);
    long redirects = 0;
    curl_easy_getinfo(t.easy, CURLINFO_REDIRECT_COUNT, &redirects);
    if (redirects > 0 && effective) {
        t.restartURL = effective;
        t.restartStatus = t.lastStatus;
    }
    X509_STORE_CTX_set_error(context, X509_V_ERR_APPLICATION_VERIFICATION);
    return false;
}

}  // namespace krcommon::platform::detail
