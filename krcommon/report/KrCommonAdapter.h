#pragma once

// Statistics reporting for the account SDK. The host gives the adapter its base
// information once (business type, protocol, client and SDK versions, its own
// device identifier) and then hands it statistics records one at a time.
// Records wait in a queue file, Library/kr_sdks_kvstorage/statisticsInfoList,
// across launches and failed uploads; from five records on the whole queue is
// posted as one JSON batch to the account origin + "/loginstat". A successful
// upload deletes the file, a failed one keeps it for the next batch, and a
// queue grown past fifty records is discarded. Single user-action reports go
// out at once as a GET to the account origin + "/kruserstat".
//
// Two losses are deliberate and part of the contract: a record that arrives
// while a batch is in flight is dropped, and so is a queue above fifty records.
//
// Callers may report from any thread; the upload's completion runs on the main
// queue. The queue file and the in-flight flag are only touched under the
// adapter's lock, so the two never interleave. Every line the adapter writes
// goes straight to the system log.

#include <krcommon/http/KRSDKMemberHttpManager.h>
#include <krcommon/platform/core/Value.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace krcommon {

class KRCOMMON_EXPORT KrCommonAdapter : public std::enable_shared_from_this<KrCommonAdapter> {
public:
    /// A queue longer than this is discarded whole, without upload.
    static constexpr std::int64_t reportStatisMax = 50;
    /// A queue at least this long is uploaded.
    static constexpr std::int64_t reportCount = 5;
    /// Name of the queue file and of the legacy queue file.
    static constexpr const char* statisticsFileName = "statisticsInfoList";
    /// Folder under Library holding the queue file (and the whitelist).
    static constexpr const char* storageFolderName = "kr_sdks_kvstorage";
    /// Appended to the queue file's name for the copy of a queue file that
    /// could not be read ("statisticsInfoList.unreadable"); the newest replaces
    /// any older one.
    static constexpr const char* unreadableSuffix = ".unreadable";

    /// The shared adapter, made on first use; it lives until the process ends.
    static const std::shared_ptr<KrCommonAdapter>& instance();
    /// A separate adapter with the defaults: business type -1, protocol "200",
    /// client and SDK versions and device identifier "unknow", the legacy queue
    /// looked for in Documents, and a new HTTP manager whose delegate queue has
    /// the default width.
    static std::shared_ptr<KrCommonAdapter> create();
    ~KrCommonAdapter();
    KrCommonAdapter(const KrCommonAdapter&) = delete;
    KrCommonAdapter& operator=(const KrCommonAdapter&) = delete;

    // ---- Base information.

    /// Takes the base information from `info` unless it is locked (see
    /// isSetBaseLoginInfo) or `info` is not a dictionary. "businessType" is read
    /// as an integer (a number, or a string's leading decimal integer); values
    /// under "protocolVersion", "clientVersion", "sdkVersion" and "deviceId" are
    /// taken as they are. Missing keys leave their fields unchanged.
    void setLoginBaseInfo(const platform::Value& info);
    /// Locks (YES) or unlocks the base information against setLoginBaseInfo.
    void isSetBaseLoginInfo(bool locked);

    /// isSetLoginInfo() answers the lock of isSetBaseLoginInfo; the others the base information
    /// as last taken (the defaults listed at create() until then), the versions and identifier
    /// being whatever Values were given. Each read is a copy taken under the adapter's lock.
    [[nodiscard]] bool isSetLoginInfo() const;
    [[nodiscard]] std::int64_t businessType() const;
    [[nodiscard]] platform::Value protocolVersion() const;
    [[nodiscard]] platform::Value clientVersion() const;
    [[nodiscard]] platform::Value sdkVersion() const;
    [[nodiscard]] platform::Value deviceId() const;

    // ---- Statistics.

    /// Queues `record` (a property-list value) and uploads the queue when it
    /// holds five to fifty records. While a batch is in flight the record is
    /// dropped with the line "is reporting....". A nil record is refused with
    /// "repInfoList is nil....".
    void reportRequestStatInfo(const platform::Value& record);

    /// Merges the queue file, `repInfoList` and the legacy file (in that order),
    /// writes the result to the queue file atomically, deletes the legacy file
    /// once that write has succeeded (a failed write keeps it), and then
    /// decides: above fifty records the file is deleted and nothing is sent;
    /// from five on the batch is uploaded; below five the records wait. A queue
    /// file that cannot be read as an array counts as empty; it is first moved
    /// aside (see unreadableSuffix) with a line naming the copy (a folder in its
    /// place is left alone, and the write then fails). Does not look at the
    /// in-flight flag.
    void sendReportRequest(std::optional<platform::Array> repInfoList);

    /// Posts `body` as JSON to the account origin + "/loginstat". On success
    /// the queue file is deleted; on failure it is kept and
    /// "report statistics fail next time retry..." is logged. Either way the
    /// in-flight flag is cleared on the main queue.
    void requestReportStatisticsInfo(const platform::Dictionary& body);

    /// Whether a batch upload is in flight.
    [[nodiscard]] bool reporting() const noexcept { return reporting_.load(std::memory_order_acquire); }

    /// Sends one user-action report at once as a GET to the account origin +
    /// "/kruserstat" with "category" and "action" ("" when absent), "flowid" and
    /// "reqid" (milliseconds since 1970) and "extdata": the compact JSON of
    /// {"APPID": business type} overlaid with `extData` (a dictionary, or nil).
    /// Nothing is queued or retried; the outcome is logged.
    void reportActionCategory(std::optional<std::string_view> category, std::optional<std::string_view> action,
                              const platform::Value& extData);

    /// The JSON text of `dictionary` with every blank and line feed removed,
    /// those inside strings too. "" (and a logged line) when it cannot be
    /// written as JSON.
    static std::string convertToJsonData(const platform::Value& dictionary);

    // ---- Legacy queue.

    /// From now on the legacy queue is looked for in Library; a legacy file in
    /// Documents is moved there (a failed move is logged).
    void moveCacheFromDocumentToLibrayrIfNeeded();
    /// Whether the legacy queue lives in Library rather than Documents.
    [[nodiscard]] bool moveDocumentToLibrary() const noexcept {
        return moveDocumentToLibrary_.load(std::memory_order_acquire);
    }
    void setMoveDocumentToLibrary(bool value) noexcept { moveDocumentToLibrary_.store(value, std::memory_order_release); }

    // ---- Paths and files.

    /// Documents/`name`, or nullopt for an absent name.
    static std::optional<std::string> documentFilePath(std::optional<std::string_view> name);
    /// Library/`name`.
    static std::string LibraryFilePath(std::string_view name);
    /// Library/kr_sdks_kvstorage/statisticsInfoList, creating the folder when missing.
    static std::string statisInfoFilePathName();
    /// Removes the file at `path` if there is one; false only when that removal fails.
    static bool removeFileWithPath(const std::string& path);

    // ---- Transport.

    /// The manager every report goes through.
    [[nodiscard]] std::shared_ptr<KRSDKMemberHttpManager> httpManager() const;
    /// Replaces the manager for the reports sent from now on; one in flight keeps its own.
    /// nullptr puts a new manager like the adapter's first one in its place.
    void setHttpManager(std::shared_ptr<KRSDKMemberHttpManager> manager);

private:
    struct Private {};

public:
    explicit KrCommonAdapter(Private);

private:
    /// The merge-persist-decide step under the lock; answers the batch body
    /// when an upload is due (the in-flight flag is then already set).
    std::optional<platform::Value> persistLocked(platform::Array records);
    /// The batch body around `queue`.
    platform::Value batchBodyLocked(platform::Array queue) const;
    /// requestReportStatisticsInfo() for a body already held as a Value.
    void upload(const platform::Value& body);
    /// A copy of `field`, read under the lock.
    template <class T>
    T locked(const T& field) const {
        std::lock_guard lock(mutex_);
        return field;
    }
    /// The queue file's records; a file that is missing or not an array reads as none
    /// (a file that is there is first moved aside). When the file is still as this adapter
    /// last wrote it, its text moves to `lastWritten`.
    platform::Array readQueueLocked(const std::string& path, std::string* lastWritten);
    /// Renames the unreadable queue file at `path` to `path` + unreadableSuffix and logs it.
    static void setAsideUnreadableQueue(const std::string& path);

    // The queue file as this adapter last wrote it, with its records, so that
    // the next record need not parse it again. Checked against the file's
    // bytes on every read, so a file changed by anyone else is parsed afresh.
    struct QueueCache {
        std::string bytes;
        platform::Array records;
    };

    mutable std::mutex mutex_;  // guards everything below and the queue file
    // Holding list for records arriving during an upload. It is never created,
    // so such records are dropped: that loss is part of the contract.
    std::optional<platform::Array> statisArray_;
    std::atomic<bool> reporting_{false};
    bool isSetLoginInfo_ = false;
    std::int64_t businessType_ = -1;
    platform::Value protocolVersion_{"200"};
    platform::Value clientVersion_{"unknow"};
    platform::Value sdkVersion_{"unknow"};
    platform::Value deviceId_{"unknow"};
    std::atomic<bool> moveDocumentToLibrary_{false};
    std::shared_ptr<KRSDKMemberHttpManager> httpManager_;
    std::optional<QueueCache> queueCache_;
};

}  // namespace krcommon
