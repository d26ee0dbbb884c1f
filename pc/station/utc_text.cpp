#include "pc/station/utc_text.hpp"

#include <ctime>

namespace station {
namespace {

tm utc_now() {
    const time_t now = time(nullptr);
    tm parts{};
#ifdef _WIN32
    gmtime_s(&parts, &now);
#else
    gmtime_r(&now, &parts);
#endif
    return parts;
}

}  // namespace

std::string utc_date() {
    char text[16];
    const tm parts = utc_now();
    strftime(text, sizeof(text), "%Y-%m-%d", &parts);
    return text;
}

std::string utc_time_stamp() {
    char text[32];
    const tm parts = utc_now();
    strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

std::string utc_folder_stamp() {
    char text[32];
    const tm parts = utc_now();
    strftime(text, sizeof(text), "%Y%m%dT%H%M%SZ", &parts);
    return text;
}

}  // namespace station
