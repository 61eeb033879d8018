/* PICT.p and QTTools.p: formats of a platform we do not run on. Built once per module, with
 * IMF_PICT or IMF_QUICKTIME defined. The loaders recognise their files and answer
 * IMAGEFILE_UNAVAILABLE ("not available on this platform"), so that such a file gets that
 * message instead of "not a known image format"; the savers always answer it. The animation
 * servers of QTTools.p return IMAGEFILE_UNAVAILABLE as their activation result. */
#include "module_util.h"

#if defined(IMF_PICT)
#define IMF_FORMAT "PICT"
/* A PICT file: a 512-byte header, the picture size and frame, then the version opcode. */
static int Recognise(const unsigned char *h, int n)
{
    return n >= 528 && ((h[522] == 0x00 && h[523] == 0x11 && h[524] == 0x02 && h[525] == 0xFF) ||
                        (h[522] == 0x11 && h[523] == 0x01));
}
#else
#define IMF_FORMAT "QuickTime"
/* A QuickTime movie or image: an atom whose type is one of QuickTime's top-level atoms. */
static int Recognise(const unsigned char *h, int n)
{
    static const char *const kAtoms[] = {"ftyp", "moov", "mdat", "idsc", "wide", "pnot"};
    for (size_t i = 0; n >= 8 && i < sizeof kAtoms / sizeof kAtoms[0]; ++i)
        if (memcmp(h + 4, kAtoms[i], 4) == 0)
            return 1;
    return 0;
}
#endif

static int32_t ActivateLoader(int32_t version, HostGlobalFunc *global, void *local, void *serverData)
{
    (void)global;
    (void)serverData;
    IMF_CHECK_VERSION(version, local);
    ImageLoaderLocal *l = (ImageLoaderLocal *)local;
    unsigned char header[528];
    l->image = NULL;
    l->result = IMAGEFILE_NOT_MINE;
    if (l->fileName && Recognise(header, ImfReadMagic(l->fileName, header, (int)sizeof header))) {
        l->result = IMAGEFILE_UNAVAILABLE;
        ImfMessage(l->message, IMF_FORMAT ": not available on this platform");
    }
    return 0;
}

#if defined(IMF_PICT)
static int32_t ActivateSaver(int32_t version, HostGlobalFunc *global, void *local, void *serverData)
{
    (void)global;
    (void)serverData;
    IMF_CHECK_VERSION(version, local);
    ImageSaverLocal *l = (ImageSaverLocal *)local;
    l->result = IMAGEFILE_UNAVAILABLE;
    ImfMessage(l->message, IMF_FORMAT ": not available on this platform");
    return 0;
}

static const ServerTagDef kLoaderTags[] = {{"PICT Loader", 0}, {NULL, 0}};
static const ServerTagDef k24Tags[] = {{"PICT 24 bit (.pct)", 0}, {NULL, 0}};
static const ServerTagDef k32Tags[] = {{"PICT 32 bit (.pct)", 0}, {NULL, 0}};
static const ServerRecord kServers[] = {
    {"ImageLoader", "VX_PICTLoader", ActivateLoader, kLoaderTags},
    {"ImageSaver", "VX_PICT24(.pct)", ActivateSaver, k24Tags},
    {"ImageSaver", "VX_PICT32(.pct)", ActivateSaver, k32Tags},
    {NULL, NULL, NULL, NULL},
};
#else
static int32_t ActivateMovie(int32_t version, HostGlobalFunc *global, void *local, void *serverData)
{
    (void)version;
    (void)global;
    (void)local;
    (void)serverData;
    return IMAGEFILE_UNAVAILABLE;
}

static const ServerTagDef kLoaderTags[] = {{"QuickTime Image Loader", 0}, {NULL, 0}};
static const ServerRecord kServers[] = {
    {"ImageLoader", "VX_QuickTimeImages", ActivateLoader, kLoaderTags},
    {"AnimLoaderHandler", "QuickTime", ActivateMovie, NULL},
    {"AnimSaverHandler", "QuickTime(.mov)", ActivateMovie, NULL},
    {"AnimSaverInterface", "QuickTime(.mov)", ActivateMovie, NULL},
    {"AnimSaverHandler", "QuickTimeVR_Object(.mov)", ActivateMovie, NULL},
    {"AnimSaverInterface", "QuickTimeVR_Object(.mov)", ActivateMovie, NULL},
    {"AnimSaverHandler", "QuickTime_Stereo(.mov)", ActivateMovie, NULL},
    {"AnimSaverInterface", "QuickTime_Stereo(.mov)", ActivateMovie, NULL},
    {NULL, NULL, NULL, NULL},
};
#endif

IMF_MODULE(kServers);
