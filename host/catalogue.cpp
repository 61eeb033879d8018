// The built-in catalogue: the module servers a catalogue-mode host knows without reading a
// database, with their module files under "Plugins" in system path 3.
#include <vxtools3/ckpt.h>
#include <vxtools3/host.h>
#include <vxtools3/memory.h>
#include <vxtools3/platform.h>

#include "host/host_internal.h"

#include <cstdio>
#include <cstring>

namespace vx::host {
namespace {

struct CatalogueTag {
    const char *string;
    uint32_t tagWord;
};

// suffix: 0 the base name is the class; 1 base + "Handler"; 2 base + "Handler" and
// base + "Interface".
struct CatalogueRow {
    const char *base;
    int suffix;
    const char *server;
    const char *module;
    CatalogueTag tags[4];
};

const CatalogueRow kCatalogue[] = {
    {"AnimLoaderHandler", 0, "AVI(.avi)", "AVI.p", {{"AVI Loader", 0}}},
    {"AnimLoaderHandler", 0, "QuickTime", "QTTools.p", {{"QuickTime Loader", 0}}},
    {"AnimSaver", 2, "AVI(.avi)", "AVI.p", {{"AVI (.avi)", 0}}},
    {"AnimSaver", 2, "QuickTime(.mov)", "QTTools.p", {{"QuickTime (.mov)", 0}}},
    {"AnimSaver", 2, "QuickTimeVR_Object(.mov)", "QTTools.p", {{"QuickTime VR Object (.mov)", 0}}},
    {"AnimSaver", 2, "QuickTime_Stereo(.mov)", "QTTools.p", {{"QuickTime Stereo (.mov)", 0}}},
    {"CommandSequence", 0, "EPSF_Loader", "EPSF.p", {{"EPSF Loader", 0}, {"file", 0x20000}}},
    {"CommandSequence", 0, "ExportEPS", "ExportEPS.p", {{"Export EPS", 0}, {"file", 0x20000}}},
    {"CommandSequence", 0, "Gear", "Prims.p", {{"Gear", 0}, {"Gear", 0x10000}, {"create", 0x20000}}},
    {"CommandSequence", 0, "Primitives", "Prims.p", {{"Primitives", 0}, {"Prims", 0x10000}, {"create", 0x20000}}},
    {"CommandSequence", 0, "RandPricks", "Prims.p", {{"Random Pricks", 0}, {"Rand Pricks", 0x10000}, {"create", 0x20000}}},
    {"CommandSequence", 0, "Stipple", "Prims.p", {{"Stipple", 0}, {"Stipple", 0x10000}, {"create", 0x20000}}},
    {"CommandSequence", 0, "Toroid", "Prims.p", {{"Toroid", 0}, {"Toroid", 0x10000}, {"create", 0x20000}}},
    {"CommandSequence", 0, "Wedge", "Prims.p", {{"Wedge", 0}, {"Wedge", 0x10000}, {"create", 0x20000}}},
    {"CommandSequence", 0, "Points2Polys", "Xgon.p", {{"Points to Polygons", 0}, {"polygons", 0x20000}, {"pnt", 0x50000}}},
    {"CommandSequence", 0, "qemLOSS2", "QEMLoss2.p", {{"QEM Reduce", 0}, {"polygons", 0x20000}, {"pol", 0x50000}}},
    {"Global", 0, "ParticleFXService", "Particlefxex.p", {{"Particle FX Service", 0}}},
    {"CustomObj", 1, ".FX_Collision", "Particlefxex.p", {{"FX Collision", 0}}},
    {"CustomObj", 1, ".FX_Emitter", "Particlefxex.p", {{"FX Emitter", 0}}},
    {"CustomObj", 1, ".FX_Gravity", "Particlefxex.p", {{"FX Gravity", 0}}},
    {"CustomObj", 1, ".FX_Wind", "Particlefxex.p", {{"FX Wind", 0}}},
    {"CustomObj", 1, "VX_EffectorNull", "CustObjects.p", {{"Effector Null", 0}}},
    {"CustomObj", 1, "VX_FrameRate", "CustObjects.p", {{"Frame Rate Meter", 0}}},
    {"CustomObj", 2, "VX_CameraMask", "CustObjects.p", {{"Camera Mask", 0}}},
    {"CustomObj", 2, "VX_RangeFinder", "CustObjects.p", {{"Range Finder", 0}}},
    {"CustomObj", 2, "VX_Ruler", "CustObjects.p", {{"Ruler", 0}}},
    {"CustomObj", 2, "VX_Speedometer", "CustObjects.p", {{"Speedometer", 0}}},
    {"CustomObj", 2, "VRML97_Object", "CustObjects.p", {{"VRML97 Object", 0}}},
    {"Displacement", 2, "VX_Deform::Bend", "Deformer.p", {{"Deform: Bend", 0}, {"pnt", 0x50000}}},
    {"Displacement", 2, "VX_Deform::Pole", "Deformer.p", {{"Deform: Pole", 0}, {"pnt", 0x50000}}},
    {"Displacement", 2, "VX_Deform::Shear", "Deformer.p", {{"Deform: Shear", 0}, {"pnt", 0x50000}}},
    {"Displacement", 2, "VX_Deform::Taper", "Deformer.p", {{"Deform: Taper", 0}, {"pnt", 0x50000}}},
    {"Displacement", 2, "VX_Deform::Twist", "Deformer.p", {{"Deform: Twist", 0}, {"pnt", 0x50000}}},
    {"Displacement", 2, "VX_Deform::Vortex", "Deformer.p", {{"Deform: Vortex", 0}, {"pnt", 0x50000}}},
    {"Displacement", 2, "VX_Serpent", "Deformer.p", {{"Serpent", 0}, {"pnt", 0x50000}}},
    {"Displacement", 1, "VX_Effector", "Deformer.p", {{"Effector", 0}}},
    {"ImageFilter", 2, "VX_Anaglyph_Stereo_Simulate", "Stereo.p", {{"Anaglyph Stereo: Simulate", 0}}},
    {"ImageFilter", 2, "VX_VideoLegalize", "VidLegal.p", {{"Video Legalize", 0}}},
    {"ImageFilter", 2, "WaterMark", "Watermark.p", {{"Watermark", 0}}},
    {"ImageLoader", 0, "IFF-ILBM", "IFF.p", {{"IFF ILBM", 0}}},
    {"ImageLoader", 0, "VX_BMPLoader", "BMP.p", {{"BMP Loader", 0}}},
    {"ImageLoader", 0, "VX_JPEGLoader", "JPEG.p", {{"JPEG Loader", 0}}},
    {"ImageLoader", 0, "VX_PICTLoader", "PICT.p", {{"PICT Loader", 0}}},
    {"ImageLoader", 0, "VX_PNGLoader", "PNG.p", {{"PNG Loader", 0}}},
    {"ImageLoader", 0, "VX_PShopLoader", "PSD.p", {{"Photoshop PSD Loader", 0}}},
    {"ImageLoader", 0, "VX_QuickTimeImages", "QTTools.p", {{"QuickTime Image Loader", 0}}},
    {"ImageLoader", 0, "VX_TIFFLoader", "TIFF.p", {{"TIFF Loader", 0}}},
    {"ImageSaver", 0, "VX_BMP24(.bmp)", "BMP.p", {{"BMP 24 bit (.bmp)", 0}}},
    {"ImageSaver", 0, "VX_BMP32(.bmp)", "BMP.p", {{"BMP 32 bit (.bmp)", 0}}},
    {"ImageSaver", 0, "VX_JPEG(.jpg)", "JPEG.p", {{"JPEG (.jpg)", 0}}},
    {"ImageSaver", 0, "VX_PICT24(.pct)", "PICT.p", {{"PICT 24 bit (.pct)", 0}}},
    {"ImageSaver", 0, "VX_PICT32(.pct)", "PICT.p", {{"PICT 32 bit (.pct)", 0}}},
    {"ImageSaver", 0, "VX_PNG24(.png)", "PNG.p", {{"PNG 24 bit (.png)", 0}}},
    {"ImageSaver", 0, "VX_PNG32(.png)", "PNG.p", {{"PNG 32 bit (.png)", 0}}},
    {"ImageSaver", 0, "VX_PShop24(.psd)", "PSD.p", {{"Photoshop 24 bit (.psd)", 0}}},
    {"ImageSaver", 0, "VX_PShop32(.psd)", "PSD.p", {{"Photoshop 32 bit (.psd)", 0}}},
    {"ImageSaver", 0, "VX_TGA24(.tga)", "TGA.p", {{"Targa 24 bit (.tga)", 0}}},
    {"ImageSaver", 0, "VX_TGA32(.tga)", "TGA.p", {{"Targa 32 bit (.tga)", 0}}},
    {"ImageSaver", 0, "VX_TIFF24(.tif)", "TIFF.p", {{"TIFF 24 bit (.tif)", 0}}},
    {"ImageSaver", 0, "VX_TIFF32(.tif)", "TIFF.p", {{"TIFF 32 bit (.tif)", 0}}},
    {"ItemMotion", 2, "VX_Effector", "Deformer.p", {{"Effector", 0}}},
    {"ItemMotion", 2, "VX_Follower", "ChanFollow.p", {{"Follower", 0}}},
    {"ItemMotion", 2, "VX_Gravity", "Gravity.p", {{"Gravity", 0}}},
    {"ItemMotion", 2, "VX_Oscillator", "Oscillator.p", {{"Oscillator", 0}}},
    {"LayoutGeneric", 0, "Comments", "Comment.p", {{"Comments", 0}}},
    {"LayoutGeneric", 0, "Shockwave3D_Export", "S3d_export.p", {{"Export Shockwave 3D", 0}, {"file", 0x20000}}},
    {"LayoutGeneric", 0, "Add_Comet", "Add_Comet.lsc", {{"Add Comet", 0}}},
    {"LayoutGeneric", 0, "Add_Exhaust", "Add_Exhaust.lsc", {{"Add Exhaust", 0}}},
    {"LayoutGeneric", 0, "Add_Explosion", "Add_Explosion.lsc", {{"Add Explosion", 0}}},
    {"LayoutGeneric", 0, "Add_MagicDust", "Add_MagicDust.lsc", {{"Add Magic Dust", 0}}},
    {"LayoutGeneric", 0, "Add_ParticleBurst", "Add_ParticleBurst.lsc", {{"Add Particle Burst", 0}}},
    {"LayoutGeneric", 0, "FXMonkey", "FXMonkey.lsc", {{"FX Monkey", 0}}},
    {"LayoutGeneric", 0, "Print_Assistant", "Print_Assistant.lsc", {{"Print Assistant", 0}}},
    {"LayoutGeneric", 0, "ImageLister", "ImageLister.p", {{"Image Lister", 0}}},
    {"LayoutGeneric", 0, "VRML97_SceneExport", "ExportVRML.p", {{"Export VRML97 Scene", 0}, {"file", 0x20000}}},
    {"MasterHandler", 0, "FXMonkey", "FXMonkey.p", {{"FX Monkey", 0}}},
    {"MeshDataEdit", 0, "Export_3DS", "Conv3D.p", {{"Export 3DS", 0}, {"file", 0x20000}}},
    {"MeshDataEdit", 0, "Export_DXF", "Conv3D.p", {{"Export DXF", 0}, {"file", 0x20000}}},
    {"MeshDataEdit", 0, "Export_OBJ", "Conv3D.p", {{"Export OBJ", 0}, {"file", 0x20000}}},
    {"MeshDataEdit", 0, "Extender", "Extender.p", {{"Extender", 0}, {"polygons", 0x20000}, {"pol", 0x50000}}},
    {"MeshDataEdit", 0, "Make-DoubleSided", "DoubleSide.p", {{"Make Double Sided", 0}, {"polygons", 0x20000}, {"pol", 0x50000}}},
    {"MeshEditTool", 0, "BezierTool", "PrimTools.p", {{"Bezier Tool", 0}, {"Bezier", 0x10000}, {"create", 0x20000}, {"spnt", 0x50000}}},
    {"MeshEditTool", 0, "VXPlatonicTool", "PrimTools.p", {{"Platonic Solid", 0}, {"Platonic", 0x10000}, {"create", 0x20000}}},
    {"MeshEditTool", 0, "VXSprayPoint", "PrimTools.p", {{"Spray Points", 0}, {"Spray", 0x10000}, {"create", 0x20000}, {"pnt", 0x50000}}},
    {"MeshEditTool", 0, "Capsule", "Capsule.p", {{"Capsule", 0}, {"Capsule", 0x10000}, {"create", 0x20000}}},
    {"MeshEditTool", 0, "VXSpikeyTool", "Spikey_T.p", {{"Spikey Tool", 0}, {"Spikey", 0x10000}, {"polygons", 0x20000}, {"pol", 0x50000}}},
    {"MeshEditTool", 0, "SeaShellTool", "SeaShell.p", {{"Sea Shell", 0}, {"SeaShell", 0x10000}, {"create", 0x20000}}},
    {"ObjReplacement", 2, "ObjectList", "ObjList.p", {{"Object List", 0}}},
    {"ObjReplacement", 2, "VX_Level_Of_Detail", "LevelOfDetail.p", {{"Level of Detail", 0}}},
    {"ObjReplacement", 1, "ObjectSequence", "ObjRep.p", {{"Object Sequence", 0}}},
    {"ObjectLoader", 0, "Import_3DS", "Conv3D.p", {{"Import 3DS", 0}}},
    {"ObjectLoader", 0, "Import_DXFa", "Conv3D.p", {{"Import DXF (a)", 0}}},
    {"ObjectLoader", 0, "Import_DXFb", "Conv3D.p", {{"Import DXF (b)", 0}}},
    {"ObjectLoader", 0, "Import_FACT", "Conv3D.p", {{"Import FACT", 0}}},
    {"ObjectLoader", 0, "Import_OBJ", "Conv3D.p", {{"Import OBJ", 0}}},
    {"PixelFilter", 2, "VX_HalfTone", "Halftone.p", {{"Halftone", 0}}},
    {"Shader", 2, "VX_FastFresnel", "VXFresnel.p", {{"Fast Fresnel", 0}}},
    {"Shader", 2, "VX_RealFresnel", "VXFresnel.p", {{"Real Fresnel", 0}}},
    {"Shader", 2, "VX_HalftoneShader", "Halftone.p", {{"Halftone Shader", 0}}},
    {"Shader", 2, "VX_Interference", "Interfere.p", {{"Interference", 0}}},
    {"Shader", 2, "VX_ThinFilm", "Interfere.p", {{"Thin Film", 0}}},
    {"Shader", 2, "VX_SuperCelShader", "SuperCelShader.p", {{"Super Cel Shader", 0}}},
    {nullptr, 0, nullptr, nullptr, {}},
};

constexpr int32_t kCataloguePath = 3;

void RegisterRowInClass(Txn *txn, const CatalogueRow &row, const char *className)
{
    char path[4096 + 64];
    const char *dir = FileSystemPath(kCataloguePath);
    std::snprintf(path, sizeof path, "%s/Plugins/%s", dir ? dir : ".", row.module);
    HostServer *server = TxnStageServer(txn, className, row.server, FindOrCreateModule(txn, path), nullptr);
    if (!server)
        return;
    for (const CatalogueTag &tag : row.tags)
        if (tag.string)
            TxnStageTag(server, tag.string, tag.tagWord);
}

void RegisterRow(Txn *txn, const CatalogueRow &row)
{
    char className[128];
    if (row.suffix == 0) {
        RegisterRowInClass(txn, row, row.base);
        return;
    }
    std::snprintf(className, sizeof className, "%sHandler", row.base);
    RegisterRowInClass(txn, row, className);
    if (row.suffix == 2) {
        std::snprintf(className, sizeof className, "%sInterface", row.base);
        RegisterRowInClass(txn, row, className);
    }
}

void EndReadingArm(uintptr_t, uintptr_t) { g_host.readingDatabase = false; }

}  // namespace

int32_t CatalogueRowCount() { return static_cast<int32_t>(sizeof kCatalogue / sizeof kCatalogue[0]) - 1; }

void RegisterCatalogue()
{
    Txn txn;
    TxnBegin(&txn);
    CKPT_BEGIN_OR_RETURN();
    TxnArmRollback(&txn);
    // The catalogue is registered as a database read would be: module servers may be made
    // although a catalogue-mode host otherwise refuses changes to them.
    g_host.readingDatabase = true;
    CkptArm(EndReadingArm, 0, 0);
    for (const CatalogueRow *row = kCatalogue; row->base; ++row)
        RegisterRow(&txn, *row);
    g_host.readingDatabase = false;
    CkptEnd();
    TxnAnnounce(TxnCommit(&txn), nullptr);
}

}  // namespace vx::host
