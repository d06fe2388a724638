#pragma once

#include <string>

/// Tells what happens on the tour, and remembers whether all of it did.
class Narrator {
public:
    /// Begins a scene.
    void Scene(const std::string& title);

    /// Explains what comes next, or what was seen.
    void Say(const std::string& text);

    /// Explains which right is missing when there is no real-time priority, and how to get it.
    void SayHowToGetRealTime();

    /// Tells something that must be so.
    void Check(bool condition, const std::string& text);

    /// True when everything that was checked was so.
    bool Succeeded() const { return failures == 0; }

private:
    int scenes = 0;
    int failures = 0;
};
