#include "Narrator.h"

#include <iostream>

void Narrator::Scene(const std::string& title) { std::cout << "\n" << std::dec << ++scenes << ". " << title << "\n"; }

void Narrator::Say(const std::string& text) { std::cout << "   " << text << std::endl; }

void Narrator::Check(bool condition, const std::string& text) {
    std::cout << (condition ? "   [ok]     " : "   [FAILED] ") << text << std::endl;
    failures += condition ? 0 : 1;
}
