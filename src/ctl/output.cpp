#include "ctl/output.hpp"

#include <iostream>

namespace skiff::ctl {

void printJson(const json::Json& document) {
    std::cout << document.dump(-1, ' ', false, json::Json::error_handler_t::replace) << std::endl;
}

int fail(const std::string& message, int status) {
    std::cerr << "skiffctl: " << message << std::endl;
    return status;
}

}  // namespace skiff::ctl
