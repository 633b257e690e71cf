#include "model.h"

#include "agm_graph.h"

#include <cerrno>
#include <string_view>

namespace tvox::sim
{

namespace
{

std::unique_ptr<Model> &installed()
{
    static std::unique_ptr<Model> model;
    return model;
}

bool is_register_mailbox(const Control &control)
{
    return control.is_bytes() && control.count >= kRegisterBlockBytes &&
           std::string_view(control.name).ends_with(" AMP WR Registers");
}

} // namespace

Model &model()
{
    std::unique_ptr<Model> &current = installed();
    if (!current)
        current = std::make_unique<Model>();
    return *current;
}

ModelRegistration::ModelRegistration(std::unique_ptr<Model> (*factory)())
{
    installed() = factory();
}

uint32_t load_be32(std::span<const uint8_t> bytes, size_t word)
{
    size_t at = word * 4;
    return static_cast<uint32_t>(bytes[at]) << 24 | static_cast<uint32_t>(bytes[at + 1]) << 16 |
           static_cast<uint32_t>(bytes[at + 2]) << 8 | bytes[at + 3];
}

void store_be32(std::span<uint8_t> bytes, size_t word, uint32_t value)
{
    size_t at = word * 4;
    bytes[at] = static_cast<uint8_t>(value >> 24);
    bytes[at + 1] = static_cast<uint8_t>(value >> 16);
    bytes[at + 2] = static_cast<uint8_t>(value >> 8);
    bytes[at + 3] = static_cast<uint8_t>(value);
}

int Model::on_write(Session &session, const Control &control, Value value)
{
    if (!is_register_mailbox(control))
        return agm::on_write(session, control, value);
    unsigned channel = control.channel < 0 ? 0 : static_cast<unsigned>(control.channel);
    uint32_t command = load_be32(value.bytes, 0);
    uint32_t address = load_be32(value.bytes, 1);
    switch (command) {
    case kRegisterWrite:
        return session.set_reg(channel, address, load_be32(value.bytes, 2)) ? 0 : -ENOSPC;
    case kRegisterRead:
        // The block stays in the mailbox with the register's contents in its last word, which
        // is what the next read of the control returns.
        store_be32(value.bytes, 2, session.reg(channel, address));
        return 0;
    default:
        return -EINVAL;
    }
}

void Model::on_read(Session &session, const Control &control, Value value)
{
    agm::on_read(session, control, value);
}

void Model::on_stream(Session &, PcmRecord &, StreamEvent) {}

} // namespace tvox::sim
