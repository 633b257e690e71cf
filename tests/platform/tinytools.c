#include "tinytools.h"

#include <tinyalsa/asoundlib.h>

#include <stdlib.h>

static void print_enum(struct mixer_ctl *ctl, FILE *out)
{
    const int current = mixer_ctl_get_value(ctl, 0);
    const unsigned int items = mixer_ctl_get_num_enums(ctl);
    for (unsigned int i = 0; i < items; i++)
        fprintf(out, " %s%s", current == (int)i ? ">" : "", mixer_ctl_get_enum_string(ctl, i));
}

static int print_values(struct mixer_ctl *ctl, FILE *out)
{
    const enum mixer_ctl_type type = mixer_ctl_get_type(ctl);
    const unsigned int count = mixer_ctl_get_num_values(ctl);
    unsigned char *bytes = NULL;
    if (type == MIXER_CTL_TYPE_BYTE) {
        bytes = calloc(1, count);
        if (bytes == NULL || mixer_ctl_get_array(ctl, bytes, count) < 0) {
            free(bytes);
            fprintf(out, " (unreadable)");
            return 1;
        }
    }
    for (unsigned int i = 0; i < count; i++) {
        switch (type) {
        case MIXER_CTL_TYPE_INT:
            fprintf(out, " %d", mixer_ctl_get_value(ctl, i));
            break;
        case MIXER_CTL_TYPE_BOOL:
            fprintf(out, " %s", mixer_ctl_get_value(ctl, i) ? "On" : "Off");
            break;
        case MIXER_CTL_TYPE_ENUM:
            print_enum(ctl, out);
            break;
        case MIXER_CTL_TYPE_BYTE:
            fprintf(out, " 0x%02x", bytes[i]);
            break;
        default:
            fprintf(out, " unknown");
            break;
        }
    }
    free(bytes);
    if (type == MIXER_CTL_TYPE_INT)
        fprintf(out, " (range %d->%d)", mixer_ctl_get_range_min(ctl), mixer_ctl_get_range_max(ctl));
    return 0;
}

int tinymix_list(unsigned int card, FILE *out)
{
    struct mixer *mixer = mixer_open(card);
    if (mixer == NULL)
        return 1;
    const unsigned int count = mixer_get_num_ctls(mixer);
    fprintf(out, "Mixer name: '%s'\nNumber of controls: %u\n", mixer_get_name(mixer), count);
    for (unsigned int i = 0; i < count; i++) {
        struct mixer_ctl *ctl = mixer_get_ctl(mixer, i);
        fprintf(out, "%u\t%s\t%u\t%s:", mixer_ctl_get_id(ctl), mixer_ctl_get_type_string(ctl),
                mixer_ctl_get_num_values(ctl), mixer_ctl_get_name(ctl));
        print_values(ctl, out);
        fprintf(out, "%s\n", mixer_ctl_is_access_tlv_rw(ctl) ? " (tlv)" : "");
    }
    mixer_close(mixer);
    return 0;
}

void tinypcminfo(unsigned int card, unsigned int device, FILE *out)
{
    for (int i = 0; i < 2; i++) {
        fprintf(out, "PCM %s:\n", i == 0 ? "out" : "in");
        struct pcm_params *params = pcm_params_get(card, device, i == 0 ? PCM_OUT : PCM_IN);
        if (params == NULL) {
            fprintf(out, "Device does not exist.\n");
            continue;
        }
        char text[1024];
        pcm_params_to_string(params, text, sizeof text);
        fputs(text, out);
        const struct pcm_mask *formats = pcm_params_get_mask(params, PCM_PARAM_FORMAT);
        fprintf(out, "S16_LE %d, S8 %d, mask %#x\n",
                pcm_params_format_test(params, PCM_FORMAT_S16_LE),
                pcm_params_format_test(params, PCM_FORMAT_S8), formats->bits[0]);
        fprintf(out, "Period bytes:\tmin=%u\t\tmax=%u\n",
                pcm_params_get_min(params, PCM_PARAM_PERIOD_BYTES),
                pcm_params_get_max(params, PCM_PARAM_PERIOD_BYTES));
        fprintf(out, "Buffer bytes:\tmin=%u\t\tmax=%u\n",
                pcm_params_get_min(params, PCM_PARAM_BUFFER_BYTES),
                pcm_params_get_max(params, PCM_PARAM_BUFFER_BYTES));
        pcm_params_free(params);
    }
}

static int within(struct pcm_params *params, enum pcm_param param, unsigned int value)
{
    return value >= pcm_params_get_min(params, param) && value <= pcm_params_get_max(params, param);
}

int tinyplay_silence(unsigned int card, unsigned int device, unsigned int frames, FILE *out)
{
    struct pcm_config config = {0};
    config.channels = 2;
    config.rate = 48000;
    config.period_size = 1024;
    config.period_count = 4;
    config.format = PCM_FORMAT_S16_LE;

    struct pcm_params *params = pcm_params_get(card, device, PCM_OUT);
    if (params == NULL) {
        fprintf(out, "Unable to open PCM device %u.\n", device);
        return 1;
    }
    const int playable = within(params, PCM_PARAM_RATE, config.rate) &&
                         within(params, PCM_PARAM_CHANNELS, config.channels) &&
                         within(params, PCM_PARAM_SAMPLE_BITS, pcm_format_to_bits(config.format)) &&
                         within(params, PCM_PARAM_PERIOD_SIZE, config.period_size) &&
                         within(params, PCM_PARAM_PERIODS, config.period_count);
    pcm_params_free(params);
    if (!playable) {
        fprintf(out, "not playable\n");
        return 1;
    }

    struct pcm *pcm = pcm_open(card, device, PCM_OUT, &config);
    if (pcm == NULL || !pcm_is_ready(pcm)) {
        fprintf(out, "Unable to open PCM device %u (%s)\n", device, pcm_get_error(pcm));
        pcm_close(pcm);
        return 1;
    }
    const unsigned int size = pcm_frames_to_bytes(pcm, pcm_get_buffer_size(pcm));
    char *buffer = calloc(1, size);
    fprintf(out, "Playing: %u frames in chunks of %u bytes (%u frames)\n", frames, size,
            pcm_bytes_to_frames(pcm, size));
    int result = buffer == NULL;
    for (unsigned int left = frames; left > 0 && result == 0;) {
        const unsigned int chunk =
            left < pcm_get_buffer_size(pcm) ? left : pcm_get_buffer_size(pcm);
        const int written = pcm_writei(pcm, buffer, chunk);
        if (written != (int)chunk) {
            fprintf(out, "Error playing sample: %d\n", written);
            result = 1;
        }
        left -= chunk;
    }
    unsigned int avail = 0;
    struct timespec when;
    if (result == 0 && pcm_get_htimestamp(pcm, &avail, &when) == 0)
        fprintf(out, "Running, %s\n", avail <= pcm_get_buffer_size(pcm) ? "avail in buffer" : "?");
    free(buffer);
    pcm_close(pcm);
    return result;
}
