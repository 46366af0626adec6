#include "connector/message_service/types.h"

namespace connector::message_service {

const char* toString(ConnectionState state) {
    switch (state) {
        case ConnectionState::CONNECTED:
            return "CONNECTED";
        case ConnectionState::CONNECTING:
            return "CONNECTING";
        case ConnectionState::RECONNECTING:
            return "RECONNECTING";
        case ConnectionState::DISCONNECTING:
            return "DISCONNECTING";
        case ConnectionState::DISCONNECTED:
            return "DISCONNECTED";
        case ConnectionState::FATALLY_DISCONNECTED:
            return "FATALLY_DISCONNECTED";
    }
    return "UNKNOWN!";
}

std::ostream& operator<<(std::ostream& out, ConnectionState state) {
    return out << toString(state);
}

}  // namespace connector::message_service
