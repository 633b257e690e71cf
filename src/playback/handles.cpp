#include "playback/handles.h"

namespace tvox
{

PcmHandle open_playback_pcm(unsigned int card, unsigned int device, struct pcm_config &config,
                            std::FILE *out)
{
    PcmHandle pcm(pcm_open(card, device, PCM_OUT, &config));
    if (pcm && pcm_is_ready(pcm.get()))
        return pcm;
    // Device tinyalsa never returns null, but a host build may when it runs out of memory.
    std::fprintf(out, "Unable to open PCM device %u (%s)\n", device,
                 pcm ? pcm_get_error(pcm.get()) : "no PCM handle");
    return nullptr;
}

PcmBuffer allocate_pcm_buffer(struct pcm *pcm, std::FILE *out)
{
    PcmBuffer buffer;
    buffer.size = pcm_frames_to_bytes(pcm, pcm_get_buffer_size(pcm));
    buffer.data.reset(static_cast<char *>(std::malloc(buffer.size)));
    if (!buffer.data)
        std::fprintf(out, "Unable to allocate %d bytes\n", static_cast<int>(buffer.size));
    return buffer;
}

} // namespace tvox
