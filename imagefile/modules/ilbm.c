/* IFF.p: IFF ILBM pictures on the library's IFF reader and writer.
 *
 *   ImageLoader:IFF-ILBM      BMHD, CMAP, CAMG and BODY, plain or ByteRun1: 1 to 8 planes as
 *                             palette indices (extra half-bright palettes widened to 64
 *                             entries; no CMAP: grey), HAM6 and HAM8 as RGB bytes, 24 planes
 *                             as RGB bytes, 32 as RGBA bytes; a mask plane is skipped
 *   ImageSaver:VX_ILBM(.iff)  palette images with as many planes as their palette needs,
 *                             grey as 8 planes with a grey CMAP, everything else as 24 planes
 *                             (alpha dropped); BODY in ByteRun1
 *   ImageSaver:VX_ILBMPlain(.iff)  the same with the BODY uncompressed
 *
 * IFF read failures are raised through the checkpoint block the loader opens, so a truncated
 * or lying file ends in one message with everything released. */
#include "module_util.h"

#define ID_FORM VX_ID('F', 'O', 'R', 'M')
#define ID_ILBM VX_ID('I', 'L', 'B', 'M')
#define ID_BMHD VX_ID('B', 'M', 'H', 'D')
#define ID_CMAP VX_ID('C', 'M', 'A', 'P')
#define ID_CAMG VX_ID('C', 'A', 'M', 'G')
#define ID_BODY VX_ID('B', 'O', 'D', 'Y')

enum { CAMG_HAM = 0x800, CAMG_EHB = 0x80, MASK_PLANE = 1, BODY_BLOCK = 65536 };

typedef struct Bmhd {
    uint32_t width, height;
    int planes, masking, compression;
} Bmhd;

/* Everything the loader holds, on the heap so that a resumed block sees it as it was. */
typedef struct IlbmRead {
    const ImageFileServices *svc;
    VxReadStrm *strm;
    VxIFFReader *reader;
    VxImage *image;
    Bmhd bmhd;
    int haveBmhd;
    uint32_t camg;
    uint8_t cmap[768];
    int colours;
    uint8_t *planes; /* one row of every stored plane, the mask plane included */
    size_t planesSize;
    uint8_t *pixels; /* one row of pixels */
    size_t pixelsSize;
    uint8_t block[BODY_BLOCK]; /* BODY bytes read ahead */
    int32_t blockLength, blockAt;
} IlbmRead;

static uint32_t Be(const uint8_t *p, int bytes)
{
    uint32_t v = 0;
    for (int i = 0; i < bytes; ++i)
        v = v << 8 | p[i];
    return v;
}

static void ReleaseRead(IlbmRead *st)
{
    const ImageFileServices *svc = st->svc;
    if (st->planes)
        svc->free(st->planes, st->planesSize);
    if (st->pixels)
        svc->free(st->pixels, st->pixelsSize);
    svc->destroy(st->image);
    if (st->reader)
        svc->iffrDestroy(st->reader);
    if (st->strm)
        svc->readClose(st->strm);
    svc->free(st, sizeof *st);
}

/* Reads the property chunks up to BODY; 0 when there is no BODY. */
static int ReadProperties(IlbmRead *st)
{
    static const uint32_t kStops[] = {ID_BMHD, ID_CMAP, ID_CAMG, ID_BODY, 0};
    const ImageFileServices *svc = st->svc;
    for (;;) {
        const uint32_t id = svc->iffrParse(st->reader, kStops);
        uint8_t bytes[20];
        if (id == ID_BODY || id == 0)
            return id == ID_BODY;
        if (id == ID_BMHD && svc->iffReadBytes(st->reader, bytes, 20) == 20) {
            st->bmhd.width = Be(bytes, 2);
            st->bmhd.height = Be(bytes + 2, 2);
            st->bmhd.planes = bytes[8];
            st->bmhd.masking = bytes[9];
            st->bmhd.compression = bytes[10];
            st->haveBmhd = 1;
        } else if (id == ID_CMAP) {
            st->colours = svc->iffReadBytes(st->reader, st->cmap, -768) / 3;
        } else if (id == ID_CAMG && svc->iffReadBytes(st->reader, bytes, 4) == 4) {
            st->camg = Be(bytes, 4);
        }
    }
}

/* The next BODY byte; -1 at the end of the chunk. */
static int NextByte(IlbmRead *st)
{
    if (st->blockAt == st->blockLength) {
        st->blockLength = st->svc->iffReadBytes(st->reader, st->block, -BODY_BLOCK);
        st->blockAt = 0;
        if (st->blockLength <= 0) {
            st->blockLength = 0;
            return -1;
        }
    }
    return st->block[st->blockAt++];
}

/* Fills `n` bytes of one plane row, plain or ByteRun1; 0 when BODY ends or a run crosses
 * the row. */
static int ReadPlaneRow(IlbmRead *st, uint8_t *out, size_t n)
{
    size_t at = 0;
    while (at < n) {
        const int code = NextByte(st);
        if (code < 0)
            return 0;
        if (!st->bmhd.compression) {
            out[at++] = (uint8_t)code;
        } else if (code < 128) {
            for (int i = 0; i <= code; ++i) {
                const int b = NextByte(st);
                if (b < 0 || at == n)
                    return 0;
                out[at++] = (uint8_t)b;
            }
        } else if (code > 128) {
            const int b = NextByte(st), count = 257 - code;
            if (b < 0 || at + (size_t)count > n)
                return 0;
            memset(out + at, b, (size_t)count);
            at += (size_t)count;
        }
    }
    return 1;
}

/* HAM holds 4 or 6 bits of colour and 2 of control per pixel: only 6 and 8 planes are HAM; the
 * flag on any other plane count is ignored and the planes are read as palette indices. */
static int IsHam(const IlbmRead *st) { return (st->camg & CAMG_HAM) && (st->bmhd.planes == 6 || st->bmhd.planes == 8); }

/* Colour of HAM code `v` after `prev` (RGB bytes). */
static void HamPixel(const IlbmRead *st, unsigned v, uint8_t *rgb, const uint8_t *prev)
{
    const int bits = st->bmhd.planes - 2;
    const unsigned control = v >> bits, data = v & ((1u << bits) - 1);
    const uint8_t level = (uint8_t)(bits == 4 ? data << 4 | data : data << 2 | data >> 4);
    memcpy(rgb, prev, 3);
    if (control == 0)
        memcpy(rgb, st->cmap + 3 * (data < 256 ? data : 0), 3);
    else
        rgb[control == 1 ? 2 : control == 2 ? 0 : 1] = level;
}

/* Turns one row of planes into pixels of the image's type. */
static void PlanesToPixels(IlbmRead *st, size_t rowBytes, int32_t width)
{
    const int planes = st->bmhd.planes, deep = planes >= 24, ham = IsHam(st);
    uint8_t prev[3] = {st->cmap[0], st->cmap[1], st->cmap[2]};
    for (int32_t x = 0; x < width; ++x) {
        const size_t byte = (size_t)x >> 3;
        const unsigned bit = 7u - ((unsigned)x & 7u);
        uint32_t v = 0;
        for (int p = 0; p < planes; ++p)
            v |= (uint32_t)((st->planes[(size_t)p * rowBytes + byte] >> bit) & 1u) << p;
        if (deep) {
            for (int c = 0; c < planes / 8; ++c)
                st->pixels[(size_t)x * (size_t)(planes / 8) + (size_t)c] = (uint8_t)(v >> (8 * c));
        } else if (ham) {
            HamPixel(st, v, st->pixels + 3 * (size_t)x, prev);
            memcpy(prev, st->pixels + 3 * (size_t)x, 3);
        } else if (st->image->type == VX_PIXEL_GREY) {
            st->pixels[x] = (uint8_t)(v * 255u / ((1u << planes) - 1u));
        } else {
            st->pixels[x] = (uint8_t)v;
        }
    }
}

static int ReadBody(IlbmRead *st, ImageLoaderLocal *local)
{
    const size_t rowBytes = ((st->bmhd.width + 15) >> 4) << 1;
    const int stored = st->bmhd.planes + (st->bmhd.masking == MASK_PLANE);
    VxImage *image = st->image;
    for (int32_t y = 0; y < image->height; ++y) {
        for (int p = 0; p < stored; ++p)
            if (!ReadPlaneRow(st, st->planes + (size_t)p * rowBytes, rowBytes)) {
                local->result = IMAGEFILE_BAD_FILE;
                ImfMessage(local->message, "ILBM: the BODY ends or breaks off at row %d", (int)y);
                return 0;
            }
        PlanesToPixels(st, rowBytes, image->width);
        image->setLine(image, image->type, y, st->pixels);
        if (!ImfStep(local->monitor, &local->result, local->message, y, image->height))
            return 0;
    }
    return 1;
}

/* The pixel type and colour name the header gives; -1 for a plane count we do not read. */
static int32_t ChooseType(IlbmRead *st, const char **colour)
{
    const int planes = st->bmhd.planes;
    if (planes == 24 || planes == 32) {
        *colour = planes == 24 ? "RGB" : "RGBA";
        return planes == 24 ? VX_PIXEL_RGB : VX_PIXEL_RGBA;
    }
    if (planes < 1 || planes > 8)
        return -1;
    if (IsHam(st)) {
        *colour = "HAM";
        return VX_PIXEL_RGB;
    }
    if (st->colours == 0) {
        *colour = "grey";
        return VX_PIXEL_GREY;
    }
    *colour = st->camg & CAMG_EHB ? "palette+EHB" : "palette";
    return VX_PIXEL_INDEX;
}

/* Extra half-bright: entries 32..63 are entries 0..31 at half brightness. */
static void WidenHalfBright(IlbmRead *st)
{
    if (!(st->camg & CAMG_EHB) || st->colours > 32)
        return;
    for (int i = 0; i < 96; ++i)
        st->cmap[96 + i] = (uint8_t)(st->cmap[i] >> 1);
    st->colours = 64;
}

static int Prepare(IlbmRead *st, ImageLoaderLocal *local, int32_t type)
{
    const ImageFileServices *svc = st->svc;
    const size_t rowBytes = ((st->bmhd.width + 15) >> 4) << 1;
    st->planesSize = rowBytes * (size_t)(st->bmhd.planes + 1);
    st->pixelsSize = (size_t)st->bmhd.width * 4;
    st->planes = svc->alloc(st->planesSize);
    st->pixels = svc->alloc(st->pixelsSize);
    st->image = st->planes && st->pixels ? svc->create(type, (int32_t)st->bmhd.width, (int32_t)st->bmhd.height) : NULL;
    if (!st->image) {
        local->result = IMAGEFILE_NO_MEMORY;
        ImfMessage(local->message, "ILBM: not enough memory for %u x %u pixels", (unsigned)st->bmhd.width,
                   (unsigned)st->bmhd.height);
        return 0;
    }
    if (type == VX_PIXEL_INDEX)
        st->image->setPalette(st->image, 0, 0, st->colours, st->cmap);
    return 1;
}

/* Everything after the header check; runs inside the checkpoint block. */
static void LoadInBlock(IlbmRead *st, ImageLoaderLocal *local)
{
    if (!ReadProperties(st) || !st->haveBmhd) {
        ImfMessage(local->message, "ILBM: %s", st->haveBmhd ? "the file has no BODY" : "the file has no BMHD");
        return;
    }
    WidenHalfBright(st);
    const char *colour = "";
    const int32_t type = ChooseType(st, &colour);
    if (type < 0 || st->bmhd.compression > 1) {
        ImfMessage(local->message, "ILBM: %d planes with compression %d cannot be read", st->bmhd.planes,
                   st->bmhd.compression);
        return;
    }
    const int planes = st->bmhd.planes;
    ImfSetInfo(local, "ILBM", st->bmhd.width, st->bmhd.height, type, planes >= 24 ? 8 : planes, planes >= 24 ? planes / 8 : 1,
               colour);
    if (local->headerOnly) {
        local->result = IMAGEFILE_OK;
        return;
    }
    if (!ImfWithinLimit(local, "ILBM", st->bmhd.width, st->bmhd.height) || !Prepare(st, local, type) || !ReadBody(st, local))
        return;
    local->image = st->image;
    st->image = NULL;
    local->result = IMAGEFILE_OK;
}

static void LoadIlbm(ImageLoaderLocal *local)
{
    uint8_t magic[12];
    if (ImfReadMagic(local->fileName, magic, 12) != 12 || Be(magic, 4) != ID_FORM || Be(magic + 8, 4) != ID_ILBM)
        return;
    const ImageFileServices *svc = local->services;
    IlbmRead *const st = svc->alloc(sizeof *st);
    local->result = IMAGEFILE_BAD_FILE;
    if (!st) {
        local->result = IMAGEFILE_NO_MEMORY;
        ImfMessage(local->message, "ILBM: not enough memory");
        return;
    }
    st->svc = svc;
    st->strm = svc->readOpen(local->fileName, NULL);
    st->reader = st->strm ? svc->iffrCreate(st->strm) : NULL;
    if (!st->reader) {
        ImfMessage(local->message, "ILBM: cannot open the file");
        ReleaseRead(st);
        return;
    }
    svc->iffrFormType(st->reader, ID_ILBM);
    if (setjmp(*svc->ckptBeginBuf())) {
        local->image = NULL;
        local->result = IMAGEFILE_BAD_FILE;
        ImfMessage(local->message, "ILBM: the file is truncated or its chunks do not fit");
        ReleaseRead(st);
        return;
    }
    LoadInBlock(st, local);
    svc->ckptEnd();
    ReleaseRead(st);
}

IMF_LOADER(ActivateLoader, LoadIlbm)

/* ---- Saving ----------------------------------------------------------------------------- */

/* Packs n bytes with ByteRun1 into out (room for n + n / 128 + 1 bytes); returns the length. */
static size_t PackByteRun1(const uint8_t *in, size_t n, uint8_t *out)
{
    size_t i = 0, o = 0;
    while (i < n) {
        size_t run = 1;
        while (i + run < n && run < 128 && in[i + run] == in[i])
            ++run;
        if (run >= 2) {
            out[o++] = (uint8_t)(257 - run);
            out[o++] = in[i];
            i += run;
            continue;
        }
        size_t literal = 1;
        while (i + literal < n && literal < 128 && !(i + literal + 1 < n && in[i + literal] == in[i + literal + 1]))
            ++literal;
        out[o++] = (uint8_t)(literal - 1);
        memcpy(out + o, in + i, literal);
        o += literal;
        i += literal;
    }
    return o;
}

typedef struct IlbmWrite {
    int planes;
    int32_t fetch;    /* the type rows are fetched as */
    int colours;      /* CMAP entries, 0 for none */
    int compress;     /* 1 ByteRun1, 0 plain */
    uint8_t cmap[768];
} IlbmWrite;

static IlbmWrite LayoutFor(VxImage *image)
{
    IlbmWrite l;
    memset(&l, 0, sizeof l);
    l.planes = 24;
    l.fetch = VX_PIXEL_RGB;
    if (image->type == VX_PIXEL_INDEX) {
        l.colours = image->getPalette(image, 1, 0, 256, l.cmap);
        if (l.colours <= 0)
            l.colours = image->getPalette(image, 0, 0, 256, l.cmap);
        l.fetch = VX_PIXEL_INDEX;
    } else if (ImfIsGrey(image->type)) {
        l.fetch = VX_PIXEL_GREY;
    } else {
        return l;
    }
    if (l.colours <= 0) {
        l.colours = 256;
        for (int i = 0; i < 768; ++i)
            l.cmap[i] = (uint8_t)(i / 3);
    }
    l.planes = 1;
    while ((1 << l.planes) < l.colours)
        ++l.planes;
    return l;
}

/* Splits one row of pixels into plane rows. */
static void PixelsToPlanes(const uint8_t *pixels, int32_t width, int planes, size_t rowBytes, uint8_t *out)
{
    memset(out, 0, rowBytes * (size_t)planes);
    const int bytesPerPixel = planes >= 24 ? 3 : 1;
    for (int32_t x = 0; x < width; ++x) {
        uint32_t v = 0;
        for (int c = 0; c < bytesPerPixel; ++c)
            v |= (uint32_t)pixels[(size_t)x * (size_t)bytesPerPixel + (size_t)c] << (8 * c);
        for (int p = 0; p < planes; ++p)
            if ((v >> p) & 1u)
                out[(size_t)p * rowBytes + ((size_t)x >> 3)] |= (uint8_t)(0x80u >> ((unsigned)x & 7u));
    }
}

static int32_t WriteHeader(const ImageFileServices *svc, VxIFFWriter *w, VxImage *image, const IlbmWrite *l)
{
    const uint16_t size[4] = {(uint16_t)image->width, (uint16_t)image->height, 0, 0};
    /* planes, no mask, compression, pad */
    const uint8_t flags[4] = {(uint8_t)l->planes, 0, (uint8_t)l->compress, 0};
    const uint16_t transparent = 0;
    const uint8_t aspect[2] = {1, 1};
    const uint16_t page[2] = {(uint16_t)image->width, (uint16_t)image->height};
    int32_t error = svc->iffwChunkOpen(w, ID_FORM, ID_ILBM);
    error = error ? error : svc->iffwChunkOpen(w, ID_BMHD, 0);
    error = error ? error : svc->iffWriteShorts(w, size, 4);
    error = error ? error : svc->iffWriteBytes(w, flags, 4);
    error = error ? error : svc->iffWriteShorts(w, &transparent, 1);
    error = error ? error : svc->iffWriteBytes(w, aspect, 2);
    error = error ? error : svc->iffWriteShorts(w, page, 2);
    error = error ? error : svc->iffwChunkClose(w);
    if (l->colours > 0) {
        error = error ? error : svc->iffwChunkOpen(w, ID_CMAP, 0);
        error = error ? error : svc->iffWriteBytes(w, l->cmap, 3 * l->colours);
        error = error ? error : svc->iffwChunkClose(w);
    }
    return error;
}

static int32_t WriteBody(ImageSaverLocal *local, VxIFFWriter *w, const IlbmWrite *l, uint8_t *buffer, size_t rowBytes)
{
    const ImageFileServices *svc = local->services;
    VxImage *image = local->image;
    uint8_t *pixels = buffer, *planes = pixels + (size_t)image->width * 3, *packed = planes + rowBytes * 24;
    int32_t error = svc->iffwChunkOpen(w, ID_BODY, 0);
    for (int32_t y = 0; !error && y < image->height; ++y) {
        if (!image->getLine(image, l->fetch, y, pixels))
            return VX_ERR_FORMAT;
        PixelsToPlanes(pixels, image->width, l->planes, rowBytes, planes);
        for (int p = 0; !error && p < l->planes; ++p) {
            const uint8_t *plane = planes + (size_t)p * rowBytes;
            const size_t n = l->compress ? PackByteRun1(plane, rowBytes, packed) : rowBytes;
            error = svc->iffWriteBytes(w, l->compress ? packed : plane, (int32_t)n);
        }
        if (!error && !ImfStep(local->monitor, &local->result, local->message, y, image->height))
            return VX_ERR_ABORT;
    }
    error = error ? error : svc->iffwChunkClose(w);
    return error ? error : svc->iffwChunkClose(w);
}

static void SaveIlbm(ImageSaverLocal *local, int compress)
{
    const ImageFileServices *svc = local->services;
    VxImage *image = local->image;
    if (image->width > 65535 || image->height > 65535) {
        local->result = IMAGEFILE_BAD_IMAGE;
        ImfMessage(local->message, "ILBM: at most 65535 x 65535 pixels");
        return;
    }
    IlbmWrite layout = LayoutFor(image);
    layout.compress = compress;
    const size_t rowBytes = (((size_t)image->width + 15) >> 4) << 1;
    const size_t size = (size_t)image->width * 3 + rowBytes * 24 + rowBytes + rowBytes / 128 + 2;
    uint8_t *buffer = svc->alloc(size);
    VxWriteStrm *strm = buffer ? svc->writeOpen(local->fileName) : NULL;
    VxIFFWriter *writer = strm ? svc->iffwCreate(strm) : NULL;
    int32_t error = writer ? WriteHeader(svc, writer, image, &layout) : VX_ERR_IO;
    error = error ? error : WriteBody(local, writer, &layout, buffer, rowBytes);
    if (writer)
        svc->iffwDestroy(writer);
    if (strm && svc->writeClose(strm) != 0 && !error)
        error = VX_ERR_IO;
    if (buffer)
        svc->free(buffer, size);
    local->result = error == 0 ? IMAGEFILE_OK : error == VX_ERR_ABORT ? IMAGEFILE_ABORTED : IMAGEFILE_IO_ERROR;
    if (error && error != VX_ERR_ABORT)
        ImfMessage(local->message, "ILBM: %s", strm ? "the file could not be written" : "cannot create the file");
    if (error && strm)
        remove(local->fileName);
}

IMF_SAVER(ActivateSaver, SaveIlbm, 1)
IMF_SAVER(ActivatePlainSaver, SaveIlbm, 0)

static const ServerTagDef kLoaderTags[] = {{"IFF ILBM", 0}, {NULL, 0}};
static const ServerTagDef kSaverTags[] = {{"IFF ILBM (.iff)", 0}, {NULL, 0}};
static const ServerTagDef kPlainTags[] = {{"IFF ILBM uncompressed (.iff)", 0}, {NULL, 0}};

static const ServerRecord kServers[] = {
    {"ImageLoader", "IFF-ILBM", ActivateLoader, kLoaderTags},
    {"ImageSaver", "VX_ILBM(.iff)", ActivateSaver, kSaverTags},
    {"ImageSaver", "VX_ILBMPlain(.iff)", ActivatePlainSaver, kPlainTags},
    {NULL, NULL, NULL, NULL},
};

IMF_MODULE(kServers);
