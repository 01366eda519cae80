#pragma once
// Typed reading and writing of sd-bus messages for the adapter. Byte arrays move in one
// step (sd_bus_message_append_array / read_array), never element by element. Every
// helper returns sd-bus's result: negative errno on failure.
//
// A message is used by one thread at a time: the bus connection's strand, or the
// thread that builds a message before handing it there.

#include <systemd/sd-bus.h>

#include <cstdint>
#include <span>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "common/bridge_protocols.hpp"
#include "common/bytes.hpp"

namespace skiff::service::dbus {

// One reference to an sd-bus message.
class MessageRef {
public:
    MessageRef() = default;
    // Takes over a reference the caller owns (e.g. from sd_bus_message_new_*).
    static MessageRef adopt(sd_bus_message* message) { return MessageRef(message); }
    // Adds a reference of its own (e.g. to the message a handler was called with).
    static MessageRef share(sd_bus_message* message) {
        return MessageRef(sd_bus_message_ref(message));
    }
    ~MessageRef() { sd_bus_message_unref(message_); }
    MessageRef(MessageRef&& other) noexcept : message_(std::exchange(other.message_, nullptr)) {}
    MessageRef& operator=(MessageRef&& other) noexcept {
        std::swap(message_, other.message_);
        return *this;
    }
    MessageRef(const MessageRef&) = delete;
    MessageRef& operator=(const MessageRef&) = delete;

    sd_bus_message* get() const { return message_; }
    explicit operator bool() const { return message_ != nullptr; }

private:
    explicit MessageRef(sd_bus_message* message) : message_(message) {}
    sd_bus_message* message_ = nullptr;
};

// A Unix file descriptor argument (`h`). Reading gives the message's own descriptor,
// valid while the message lives; dup it to keep it.
struct UnixFd {
    int fd = -1;
};

// A byte array argument read in place: valid while the message lives.
using ByteView = std::span<const std::uint8_t>;

namespace wire {

inline int append(sd_bus_message* m, std::int64_t v) {
    return sd_bus_message_append_basic(m, 'x', &v);
}
inline int append(sd_bus_message* m, std::uint64_t v) {
    return sd_bus_message_append_basic(m, 't', &v);
}
inline int append(sd_bus_message* m, std::uint32_t v) {
    return sd_bus_message_append_basic(m, 'u', &v);
}
inline int append(sd_bus_message* m, double v) {
    return sd_bus_message_append_basic(m, 'd', &v);
}
inline int append(sd_bus_message* m, bool v) {
    const int value = v ? 1 : 0;
    return sd_bus_message_append_basic(m, 'b', &value);
}
inline int append(sd_bus_message* m, const std::string& v) {
    return sd_bus_message_append_basic(m, 's', v.c_str());
}
inline int append(sd_bus_message* m, ByteView v) {
    static const std::uint8_t none = 0;
    return sd_bus_message_append_array(m, 'y', v.empty() ? &none : v.data(), v.size());
}
inline int append(sd_bus_message* m, const Bytes& v) {
    return append(m, ByteView(v));
}
inline int append(sd_bus_message* m, const SharedBytes& v) {
    return append(m, v.span());
}
inline int append(sd_bus_message* m, UnixFd v) {
    return sd_bus_message_append_basic(m, 'h', &v.fd);
}

inline int read(sd_bus_message* m, std::int64_t& v) {
    return sd_bus_message_read_basic(m, 'x', &v);
}
inline int read(sd_bus_message* m, std::uint64_t& v) {
    return sd_bus_message_read_basic(m, 't', &v);
}
inline int read(sd_bus_message* m, std::uint32_t& v) {
    return sd_bus_message_read_basic(m, 'u', &v);
}
inline int read(sd_bus_message* m, double& v) {
    return sd_bus_message_read_basic(m, 'd', &v);
}
inline int read(sd_bus_message* m, bool& v) {
    int value = 0;
    const int r = sd_bus_message_read_basic(m, 'b', &value);
    v = value != 0;
    return r;
}
inline int read(sd_bus_message* m, std::string& v) {
    const char* text = nullptr;
    const int r = sd_bus_message_read_basic(m, 's', &text);
    if (r > 0) {
        v = text;
    }
    return r;
}
inline int read(sd_bus_message* m, ByteView& v) {
    const void* data = nullptr;
    std::size_t size = 0;
    const int r = sd_bus_message_read_array(m, 'y', &data, &size);
    if (r >= 0) {
        v = ByteView(static_cast<const std::uint8_t*>(data), size);
    }
    return r;
}
inline int read(sd_bus_message* m, Bytes& v) {
    ByteView view;
    const int r = read(m, view);
    if (r >= 0) {
        v.assign(view.begin(), view.end());
    }
    return r;
}
inline int read(sd_bus_message* m, UnixFd& v) {
    return sd_bus_message_read_basic(m, 'h', &v.fd);
}

// Arrays of ordered-relay requests and answers (`a(xay)`, `a(ayxx)`).
int append(sd_bus_message* m, const std::vector<OrderedRelayRequest>& v);
int read(sd_bus_message* m, std::vector<OrderedRelayRequest>& v);
int append(sd_bus_message* m, const std::vector<OrderedRelayAnswer>& v);
int read(sd_bus_message* m, std::vector<OrderedRelayAnswer>& v);

// Appends every value in order; stops at the first failure.
template <class... A>
int appendAll([[maybe_unused]] sd_bus_message* m, const A&... values) {
    int r = 0;
    ((r >= 0 ? (r = append(m, values)) : r), ...);
    return r < 0 ? r : 0;
}

// Reads every value in order; a missing or mistyped argument is a failure.
template <class... A>
int readAll([[maybe_unused]] sd_bus_message* m, A&... values) {
    int r = 1;
    ((r > 0 ? (r = read(m, values), r = (r == 0 ? -EBADMSG : r)) : r), ...);
    return r < 0 ? r : 0;
}

// An array of structures, each appended or read with its members in order.
template <class T, class Members>
int appendStructs(sd_bus_message* m, const char* signature, const std::vector<T>& values,
                  Members members) {
    const std::string element = std::string("(") + signature + ")";
    int r = sd_bus_message_open_container(m, 'a', element.c_str());
    for (const auto& value : values) {
        if (r >= 0) {
            r = sd_bus_message_open_container(m, 'r', signature);
        }
        if (r >= 0) {
            r = std::apply([m](const auto&... v) { return appendAll(m, v...); }, members(value));
        }
        if (r >= 0) {
            r = sd_bus_message_close_container(m);
        }
    }
    return r < 0 ? r : sd_bus_message_close_container(m);
}
template <class T, class Members>
int readStructs(sd_bus_message* m, const char* signature, std::vector<T>& values, Members members) {
    const std::string element = std::string("(") + signature + ")";
    int r = sd_bus_message_enter_container(m, 'a', element.c_str());
    if (r <= 0) {
        return r;
    }
    for (;;) {
        r = sd_bus_message_enter_container(m, 'r', signature);
        if (r <= 0) {
            break;
        }
        T value;
        r = std::apply([m](auto&... v) { return readAll(m, v...); }, members(value));
        if (r >= 0) {
            r = sd_bus_message_exit_container(m);
        }
        if (r < 0) {
            return r;
        }
        values.push_back(std::move(value));
    }
    if (r < 0) {
        return r;
    }
    r = sd_bus_message_exit_container(m);
    return r < 0 ? r : 1;
}

inline auto orderedRequestMembers(auto& request) {
    return std::tie(request.selector, request.param);
}
inline auto orderedAnswerMembers(auto& answer) {
    return std::tie(answer.response, answer.status, answer.code);
}
inline int append(sd_bus_message* m, const std::vector<OrderedRelayRequest>& v) {
    return appendStructs(m, "xay", v, [](const auto& x) { return orderedRequestMembers(x); });
}
inline int read(sd_bus_message* m, std::vector<OrderedRelayRequest>& v) {
    return readStructs(m, "xay", v, [](auto& x) { return orderedRequestMembers(x); });
}
inline int append(sd_bus_message* m, const std::vector<OrderedRelayAnswer>& v) {
    return appendStructs(m, "ayxx", v, [](const auto& x) { return orderedAnswerMembers(x); });
}
inline int read(sd_bus_message* m, std::vector<OrderedRelayAnswer>& v) {
    return readStructs(m, "ayxx", v, [](auto& x) { return orderedAnswerMembers(x); });
}

}  // namespace wire
}  // namespace skiff::service::dbus
