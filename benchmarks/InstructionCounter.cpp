// A plug-in for user-mode emulation that tells at the end how many instructions the program has executed. The
// declarations are those of the emulator's plug-in interface, whose header is not packaged.

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" {
using Id = std::uint64_t;
struct Block;
enum Operation { AddU64 };

void qemu_plugin_register_vcpu_tb_trans_cb(Id id, void (*callback)(Id, Block*));
std::size_t qemu_plugin_tb_n_insns(const Block* block);
void qemu_plugin_register_vcpu_tb_exec_inline(Block* block, Operation operation, void* counter, std::uint64_t add);
void qemu_plugin_register_atexit_cb(Id id, void (*callback)(Id, void*), void* data);
void qemu_plugin_outs(const char* text);

extern const int qemu_plugin_version;
const int qemu_plugin_version = 1;
int qemu_plugin_install(Id id, const void* information, int count, char** arguments);
}

namespace {

std::uint64_t executed = 0;

void CountBlock(Id /*id*/, Block* block) {
    qemu_plugin_register_vcpu_tb_exec_inline(block, AddU64, &executed, qemu_plugin_tb_n_insns(block));
}

void Tell(Id /*id*/, void* /*data*/) { qemu_plugin_outs(("Collected : " + std::to_string(executed) + "\n").c_str()); }

}  // namespace

int qemu_plugin_install(Id id, const void* /*information*/, int /*count*/, char** /*arguments*/) {
    qemu_plugin_register_vcpu_tb_trans_cb(id, &CountBlock);
    qemu_plugin_register_atexit_cb(id, &Tell, nullptr);
    return 0;
}
