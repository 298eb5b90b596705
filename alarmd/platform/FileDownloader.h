/// HTTP download of one file.
#pragma once

#include <memory>
#include <string>

namespace otaup {

/// How a download ended.
class FileDownloaderError {
  public:
    FileDownloaderError(int code, std::string text);
    /// 0 for success.
    int code() const { return m_code; }
    /// The transfer library's text, or which rule of ours refused the download.
    const std::string& errorString() const { return m_text; }

  private:
    int m_code;
    std::string m_text;
};

/// Downloads over http and https. Any number of threads may use one object at once, also for the
/// same path.
class FileDownloader {
  public:
    FileDownloader();
    /// Nobody may be inside download() any more: cancel() and join the callers first.
    ~FileDownloader();
    FileDownloader(const FileDownloader&) = delete;
    FileDownloader& operator=(const FileDownloader&) = delete;

    /// Fetches `url` into `path` and waits for it, first until fewer than 128 others are at it. The
    /// file appears there whole, replacing an older
    /// one, or not at all, and is on disk before success is returned. At most 5 redirects, 16 MiB,
    /// 10 s to connect, and no less than 1 kB/s over 20 s. Refused are other schemes, answers of
    /// 400 and over, a path with a ".." component and a path whose last component exists as
    /// anything but a regular file.
    [[nodiscard]] FileDownloaderError download(const std::string& url, const std::string& path);

    /// Makes all downloads that run, and all later ones, fail at once.
    void cancel();

  private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace otaup
