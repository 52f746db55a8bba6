#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>

#include "rules/document.h"

namespace fiscorad {

/// Tells who listens that a document or the device has changed. What is told is on disk already. Safe for
/// threads; a listener is called on the thread that made the change, so it must be quick and may not change
/// its listening from there.
class Changes {
  public:
    using DocumentListener = std::function<void(const Document&)>;
    using DeviceListener = std::function<void()>;

    /// Listening that ends with this object; a listener that is running is waited for.
    class Subscription {
      public:
        Subscription() = default;
        Subscription(Changes& changes, std::uint64_t number) : m_changes(&changes), m_number(number) {}
        Subscription(Subscription&& other) noexcept;
        Subscription& operator=(Subscription&& other) noexcept;
        ~Subscription();

      private:
        Changes* m_changes = nullptr;
        std::uint64_t m_number = 0;
    };

    /// Listens to one document.
    [[nodiscard]] Subscription watch(std::int64_t document, DocumentListener listener);
    /// Listens to all documents and to the device.
    [[nodiscard]] Subscription watchAll(DocumentListener documents, DeviceListener device);

    void publish(const Document& document);
    void publishDevice();

  private:
    struct Listener {
        DocumentListener documents;
        DeviceListener device;
    };
    void remove(std::uint64_t number);

    std::mutex m_mutex;
    std::uint64_t m_last = 0;
    std::map<std::uint64_t, Listener> m_all;
    std::map<std::int64_t, std::map<std::uint64_t, DocumentListener>> m_one;
};

}  // namespace fiscorad
