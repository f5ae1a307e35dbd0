#include "zephane/ftp/Failure.h"

#include "zephane/nbd/NbdImage.h"
#include "zephane/wire/ProtocolError.h"

#include <asio/error.hpp>
#include <cerrno>
#include <new>
#include <system_error>

namespace zephane {

namespace {

/// Only the codes of the system's categories are errnos. asio has a category of its own for them.
int errnoOf(const std::error_code& code) {
    const auto& category = code.category();
    const bool isErrno = category == std::system_category() || category == std::generic_category() ||
                         category == asio::error::get_system_category();
    return isErrno && code.value() > 0 ? code.value() : EIO;
}

} // namespace

Failure failureOf(const std::exception_ptr& exception) {
    try {
        std::rethrow_exception(exception);
    } catch (const NbdError& error) {
        return {error.error, error.what()};
    } catch (const CallError& error) {
        return {error.error, error.what()};
    } catch (const std::system_error& error) {
        return {errnoOf(error.code()), error.code().message()};
    } catch (const wire::ProtocolError& error) {
        return {EPROTO, error.what()};
    } catch (const std::invalid_argument& error) {
        return {EINVAL, error.what()};
    } catch (const std::bad_alloc&) {
        return {ENOMEM, "there is no memory left"};
    } catch (const std::exception& error) {
        return {EIO, error.what()};
    }
}

} // namespace zephane
