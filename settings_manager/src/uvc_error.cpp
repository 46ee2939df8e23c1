#include <exception>
#include <variant>

#include "uvc/error.h"

namespace uvc {

Result const& ResultOk() {
  static Result const ok{fdn::rc::kOk, std::string()};
  return ok;
}

Result ProcessException() noexcept {
  if (!std::current_exception())
    return {fdn::MakeCode(0x80000150u), "uvc: no current exception"};
  try {
    throw;
  } catch (Result const& result) {
    return result;
  } catch (Error const& error) {
    return {error.code, error.what()};
  } catch (std::bad_variant_access const&) {
    return {fdn::rc::kNotMatched, "uvc: std::bad_variant_access"};
  } catch (std::exception const& e) {
    return {fdn::rc::kUnspecifiedError, std::string("uvc: std::exception: ") + e.what()};
  } catch (...) {
    return {fdn::rc::kUnknownException, "uvc: non-std exception"};
  }
}

}  // namespace uvc
