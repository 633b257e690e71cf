/*
 * The AGM mixer interface (as shipped by devices), provided on a Linux host over the tinyalsa
 * mixer of the virtual AGM card and an expat reader of backend_conf.xml.
 * Every function returns 0 or a negative errno; a control the card lacks is -ENOENT.
 */
#ifndef AGMMIXER_H
#define AGMMIXER_H

#include <stdbool.h>
#include <stdint.h>

#include <tinyalsa/asoundlib.h>

#ifdef __cplusplus
extern "C" {
#endif

enum usecase_type {
    PLAYBACK,
    CAPTURE,
    LOOPBACK,
    HAPTICS,
};

enum stream_type {
    STREAM_PCM,
    STREAM_COMPRESS,
};

/* A back-end's media configuration (96 bytes). */
struct device_config {
    char name[80];
    unsigned int rate;
    unsigned int ch;
    unsigned int bits;
    enum pcm_format format;
};

/* A group back-end's configuration (100 bytes). */
struct group_config {
    char name[80];
    unsigned int rate;
    unsigned int ch;
    unsigned int bits;
    unsigned int slot_mask;
    enum pcm_format format;
};

int get_device_media_config(char *filename, char *intf_name, struct device_config *config);
int set_agm_device_media_config(struct mixer *mixer, char *intf_name, struct device_config *config);
int set_agm_audio_intf_metadata(struct mixer *mixer, char *intf_name, unsigned int dkv,
                                enum usecase_type usecase, int rate, int bitwidth,
                                uint32_t stream_kv);
int set_agm_stream_metadata(struct mixer *mixer, int device, uint32_t stream_kv,
                            enum usecase_type usecase, enum stream_type stype,
                            unsigned int instance_kv);
int set_agm_streamdevice_metadata(struct mixer *mixer, int device, uint32_t stream_kv,
                                  enum usecase_type usecase, enum stream_type stype,
                                  char *intf_name, unsigned int devicepp_kv);
int connect_agm_audio_intf_to_stream(struct mixer *mixer, unsigned int device, char *intf_name,
                                     enum stream_type stype, bool connect);
int agm_mixer_get_miid(struct mixer *mixer, int device, char *intf_name, enum stream_type stype,
                       int tag_id, uint32_t *miid);
int configure_mfc(struct mixer *mixer, int device, char *intf_name, int tag, enum stream_type stype,
                  unsigned int rate, unsigned int channels, unsigned int bits, uint32_t miid);
int get_group_device_info(char *filename, char *intf_name, struct group_config *config);
int set_agm_group_device_config(struct mixer *mixer, char *intf_name, struct group_config *config);
int set_agm_group_mux_config(struct mixer *mixer, unsigned int device, struct group_config *config,
                             char *intf_name, unsigned int channels);

#ifdef __cplusplus
}
#endif

#endif /* AGMMIXER_H */
