#include "alarmd/platform/FileDownloader.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <set>
#include <system_error>
#include <utility>

namespace otaup {
namespace {

constexpr curl_off_t k_maxBytes = 16 * 1024 * 1024;
/// Each transfer takes four descriptors or so, and the store needs some too.
constexpr int k_mostAtOnce = 128;

/// What the system says of the file that was to be written.
FileDownloaderError fileError(const char* step, int errorNumber) {
    return {CURLE_WRITE_ERROR,
            std::string(step) + ": " + std::generic_category().message(errorNumber)};
}

FileDownloaderError cancelledError() {
    return {CURLE_ABORTED_BY_CALLBACK, "The download was cancelled"};
}

bool hasParentComponent(const std::string& path) {
    return ('/' + path + '/').find("/../") != std::string::npos;
}

bool isOtherThanRegularFile(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
}

/// The file under the name it has while it grows; removed unless it was moved to its place.
class GrowingFile {
  public:
    explicit GrowingFile(const std::string& path)
        : m_path(path), m_name(path + ".XXXXXX"), m_fd(mkostemp(m_name.data(), O_CLOEXEC)) {
        m_errno = m_fd < 0 ? errno : 0;
    }
    ~GrowingFile() {
        if (m_fd >= 0) {
            close(m_fd);
        }
        if (m_fd >= 0 && !m_inPlace) {
            unlink(m_name.c_str());
        }
    }
    GrowingFile(const GrowingFile&) = delete;
    GrowingFile& operator=(const GrowingFile&) = delete;

    /// 0, or the error number of what failed first.
    int error() const { return m_errno; }
    bool isTooLarge() const { return m_size > k_maxBytes; }

    /// The transfer library's write callback: anything but `count` ends the transfer.
    static std::size_t append(char* data, std::size_t, std::size_t count, void* file) {
        return static_cast<GrowingFile*>(file)->write(data, count) ? count : 0;
    }

    /// On disk and in its place; false with error() set.
    bool moveIntoPlace() {
        // The player may run as another user than the one who downloads.
        if (fchmod(m_fd, S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH) != 0 || fsync(m_fd) != 0
            || rename(m_name.c_str(), m_path.c_str()) != 0) {
            m_errno = errno;
            return false;
        }
        m_inPlace = true;
        return syncDirectory();
    }

  private:
    bool write(const char* data, std::size_t count) {
        m_size += static_cast<curl_off_t>(count);
        while (count > 0 && !isTooLarge()) {
            const ssize_t written = ::write(m_fd, data, count);
            if (written < 0 && errno != EINTR) {
                m_errno = errno;
                return false;
            }
            if (written > 0) {
                data += written;
                count -= static_cast<std::size_t>(written);
            }
        }
        return count == 0;
    }

    /// Makes the new name survive power loss.
    bool syncDirectory() {
        const std::string directory = m_path.substr(0, m_path.rfind('/') + 1);
        const int fd =
            open(directory.empty() ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0 || fsync(fd) != 0) {
            m_errno = errno;
        }
        if (fd >= 0) {
            close(fd);
        }
        return m_errno == 0;
    }

    const std::string m_path;
    std::string m_name;
    const int m_fd;
    int m_errno = 0;
    curl_off_t m_size = 0;
    bool m_inPlace = false;
};

/// One transfer into a file, which can be woken from other threads.
class Transfer {
  public:
    Transfer() : m_easy(curl_easy_init()), m_multi(curl_multi_init()) {}
    ~Transfer() {
        curl_multi_remove_handle(m_multi, m_easy);
        curl_easy_cleanup(m_easy);
        curl_multi_cleanup(m_multi);
    }
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    /// False when the library has no memory or lacks something that is needed.
    bool prepare(const std::string& url, GrowingFile& file) {
        return m_easy != nullptr && m_multi != nullptr && set(CURLOPT_ERRORBUFFER, m_errorText)
               && set(CURLOPT_URL, url.c_str()) && set(CURLOPT_WRITEFUNCTION, &GrowingFile::append)
               && set(CURLOPT_WRITEDATA, &file)
               && set(CURLOPT_PROTOCOLS_STR, "http,https")  // redirects included
               && set(CURLOPT_FOLLOWLOCATION, 1L) && set(CURLOPT_MAXREDIRS, 5L)
               && set(CURLOPT_FAILONERROR, 1L)
               && set(CURLOPT_MAXFILESIZE_LARGE, k_maxBytes)  // when the server says the size
               && set(CURLOPT_CONNECTTIMEOUT, 10L) && set(CURLOPT_LOW_SPEED_LIMIT, 1000L)
               && set(CURLOPT_LOW_SPEED_TIME, 20L) && set(CURLOPT_NOSIGNAL, 1L)
               && set(CURLOPT_QUICK_EXIT, 1L)  // no wait for a name server when cancelled
               && curl_multi_add_handle(m_multi, m_easy) == CURLM_OK;
    }

    /// Transfers until the end or until `isCancelled` is seen; wake() makes it look.
    template <typename IsCancelled>
    CURLcode run(const IsCancelled& isCancelled) {
        for (int running = 1; !isCancelled();) {
            if (curl_multi_perform(m_multi, &running) != CURLM_OK) {
                return CURLE_FAILED_INIT;
            }
            if (running == 0) {
                return result();
            }
            if (curl_multi_poll(m_multi, nullptr, 0, 1000, nullptr) != CURLM_OK) {
                return CURLE_FAILED_INIT;
            }
        }
        return CURLE_ABORTED_BY_CALLBACK;
    }

    void wake() { curl_multi_wakeup(m_multi); }

    std::string errorText(CURLcode code) const {
        return m_errorText[0] != '\0' ? m_errorText : curl_easy_strerror(code);
    }

  private:
    template <typename Value>
    bool set(CURLoption option, Value value) {
        return curl_easy_setopt(m_easy, option, value) == CURLE_OK;
    }

    CURLcode result() {
        int left = 0;
        const CURLMsg* message = curl_multi_info_read(m_multi, &left);
        return message != nullptr ? message->data.result : CURLE_FAILED_INIT;
    }

    char m_errorText[CURL_ERROR_SIZE] = "";
    CURL* m_easy;
    CURLM* m_multi;
};

}  // namespace

FileDownloaderError::FileDownloaderError(int code, std::string text)
    : m_code(code), m_text(std::move(text)) {}

struct FileDownloader::Impl {
    bool isCancelled() {
        const std::lock_guard<std::mutex> lock(mutex);
        return cancelled;
    }

    /// Waits until few enough are at work, or until all are cancelled.
    class Turn {
      public:
        explicit Turn(Impl& impl) : m_impl(impl) {
            std::unique_lock<std::mutex> lock(m_impl.mutex);
            while (m_impl.turns >= k_mostAtOnce && !m_impl.cancelled) {
                m_impl.turnEnded.wait(lock);
            }
            ++m_impl.turns;
        }
        ~Turn() {
            const std::lock_guard<std::mutex> lock(m_impl.mutex);
            --m_impl.turns;
            m_impl.turnEnded.notify_one();
        }
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

      private:
        Impl& m_impl;
    };

    /// Makes a transfer known to cancel() while it runs.
    class Running {
      public:
        Running(Impl& impl, Transfer& transfer) : m_impl(impl), m_transfer(transfer) {
            const std::lock_guard<std::mutex> lock(m_impl.mutex);
            m_impl.running.insert(&m_transfer);
        }
        ~Running() {
            const std::lock_guard<std::mutex> lock(m_impl.mutex);
            m_impl.running.erase(&m_transfer);
        }
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;

      private:
        Impl& m_impl;
        Transfer& m_transfer;
    };

    std::mutex mutex;  // guards all below
    bool cancelled = false;
    int turns = 0;
    std::condition_variable turnEnded;
    std::set<Transfer*> running;
};

FileDownloader::FileDownloader() : m_impl(std::make_unique<Impl>()) {}

FileDownloader::~FileDownloader() = default;

FileDownloaderError FileDownloader::download(const std::string& url, const std::string& path) {
    // Once for the process, whichever thread is first; a failure shows in each transfer. Not before
    // the first download: most daemons never make one, and it costs more memory than all the rest.
    static const CURLcode initialised = curl_global_init(CURL_GLOBAL_DEFAULT);
    static_cast<void>(initialised);
    if (hasParentComponent(path)) {
        return {CURLE_WRITE_ERROR, "The path has a \"..\" component"};
    }
    if (isOtherThanRegularFile(path)) {
        return {CURLE_WRITE_ERROR, "The path exists and is not a regular file"};
    }
    const Impl::Turn turn(*m_impl);
    if (m_impl->isCancelled()) {
        return cancelledError();
    }
    GrowingFile file(path);
    if (file.error() != 0) {
        return fileError("The file cannot be created", file.error());
    }
    Transfer transfer;
    if (!transfer.prepare(url, file)) {
        return {CURLE_FAILED_INIT, curl_easy_strerror(CURLE_FAILED_INIT)};
    }
    const Impl::Running running(*m_impl, transfer);
    const CURLcode code = transfer.run([this] { return m_impl->isCancelled(); });
    if (code == CURLE_ABORTED_BY_CALLBACK) {
        return cancelledError();
    }
    if (file.isTooLarge()) {
        return {CURLE_FILESIZE_EXCEEDED, "The file is larger than 16 MiB"};
    }
    if (file.error() != 0) {
        return fileError("The file cannot be written", file.error());
    }
    if (code != CURLE_OK) {
        return {code, transfer.errorText(code)};
    }
    if (!file.moveIntoPlace()) {
        return fileError("The file cannot be put in its place", file.error());
    }
    return {CURLE_OK, ""};
}

void FileDownloader::cancel() {
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->cancelled = true;
    m_impl->turnEnded.notify_all();
    for (Transfer* transfer : m_impl->running) {
        transfer->wake();
    }
}

}  // namespace otaup
