// Files: whatever is read, written and sought, it comes to what the same does to a string.

#include "Fuzz.h"

#include "../support/TemporaryFolder.h"

#include <climits>

using File = Kel::System::Ve::IFileService;

// The steps are words: read COUNT, write TEXT, seek ORIGIN OFFSET.
static const Target target("Files", [](std::istream& input) {
    static const TemporaryFolder folder;
    const auto file =
        Own(Factory().CreateFile(folder / "file", File::FileMode::Create, File::FileAccess::ReadWrite, false));
    std::string content;
    std::size_t position = 0;
    for (std::string step, text; input >> step >> text && position < 10000;) {
        // Between reading and writing the position must be set.
        file->Seek(0, File::SeekOrigin::Current);
        auto* const bytes = reinterpret_cast<unsigned char*>(text.data());
        if (step == "read") {
            const std::string there = content.substr(std::min(position, content.size()), text.size());
            text.resize(file->Read(bytes, 0, text.size() & UINT_MAX));
            Require(text == there, "what is there is read");
            position += text.size();
        } else if (step == "write") {
            content.resize(std::max(content.size(), position + text.size()));
            content.replace(position, text.size(), text);
            Require(file->Write(bytes, 0, text.size() & UINT_MAX) == text.size(), "what is given is written");
            position += text.size();
        } else if (unsigned int offset = 0; input >> offset) {
            const int origin = text[0] - '0';
            const std::size_t wanted = (origin == 1 ? 0 : origin == 2 ? position : content.size()) + offset;
            int reached = -1;
            Thrown([&] { reached = file->Seek(offset, File::SeekOrigin{origin}); });
            Require(reached == (wanted <= INT_MAX ? static_cast<int>(wanted) : -1), "up to 2 GiB can be told");
            position = offset <= INT_MAX ? wanted : position;
        }
    }
});
