#include "Narrator.h"

#include <iostream>

void Narrator::Scene(const std::string& title) { std::cout << "\n" << std::dec << ++scenes << ". " << title << "\n"; }

void Narrator::Say(const std::string& text) { std::cout << "   " << text << std::endl; }

void Narrator::SayHowToGetRealTime() {
    Say("Real-time priorities need a right that this process does not have. Run the tour as root, or allow the user a");
    Say("limit, such as '@realtime - rtprio 98' in /etc/security/limits.conf.");
}

void Narrator::Check(bool condition, const std::string& text) {
    std::cout << (condition ? "   [ok]     " : "   [FAILED] ") << text << std::endl;
    failures += condition ? 0 : 1;
}
