#include "provider/core.h"

#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <new>

#include <openssl/params.h>

namespace provider {
namespace {

// OpenSSL asks for the words as it stores them, which is not const.
const char* const kReasons[] = {"the provider is not configured",
                                "the database cannot be opened",
                                "no password or key was given",
                                "wrong password or key",
                                "no such record",
                                "another process uses the database",
                                "the record is damaged",
                                "the reference cannot be read",
                                "the record is nothing that OpenSSL can load",
                                "out of memory",
                                "the record cannot be read"};

void setError(OSSL_FUNC_core_vset_error_fn* set, const OSSL_CORE_HANDLE* handle,
              std::uint32_t reason, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    set(handle, reason, format, arguments);
    va_end(arguments);
}

}  // namespace

const OSSL_ITEM* reasonStrings() {
    static const auto items = [] {
        std::array<OSSL_ITEM, std::size(kReasons) + 1> list{};
        for (std::size_t i = 0; i < std::size(kReasons); ++i) {
            list[i].id = static_cast<unsigned int>(i + 1);
            list[i].ptr = const_cast<char*>(kReasons[i]);
        }
        return list;
    }();
    return items.data();
}

Core::Core(const OSSL_CORE_HANDLE* handle, const OSSL_DISPATCH* functions) : handle_(handle) {
    for (; functions->function_id != 0; ++functions) {
        switch (functions->function_id) {
            case OSSL_FUNC_CORE_GET_PARAMS:
                getParams_ = OSSL_FUNC_core_get_params(functions);
                break;
            case OSSL_FUNC_CORE_NEW_ERROR:
                newError_ = OSSL_FUNC_core_new_error(functions);
                break;
            case OSSL_FUNC_CORE_VSET_ERROR:
                setError_ = OSSL_FUNC_core_vset_error(functions);
                break;
            case OSSL_FUNC_BIO_GETS:
                gets_ = OSSL_FUNC_BIO_gets(functions);
                break;
            default:
                break;
        }
    }
    if (getParams_ == nullptr || newError_ == nullptr || setError_ == nullptr || gets_ == nullptr) {
        throw Failure(Reason::kNotConfigured, "this libcrypto lacks a function");
    }
}

std::string Core::setting(const char* name) const {
    char* value = nullptr;
    OSSL_PARAM wanted[] = {OSSL_PARAM_construct_utf8_ptr(name, &value, 0),
                           OSSL_PARAM_construct_end()};
    return getParams_(handle_, wanted) == 1 && value != nullptr ? value : "";
}

void Core::raise(Reason reason, const char* text) const noexcept {
    newError_(handle_);
    setError(setError_, handle_, static_cast<std::uint32_t>(reason), "%s", text);
}

void Core::report() const noexcept {
    try {
        throw;
    } catch (const Failure& failure) {
        raise(failure.reason(), failure.what());
    } catch (const std::bad_alloc&) {
        raise(Reason::kNoMemory, "");
    } catch (const std::exception& other) {
        raise(Reason::kFailed, other.what());
    } catch (...) {
        raise(Reason::kFailed, "");
    }
}

}  // namespace provider
