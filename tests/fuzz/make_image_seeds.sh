#!/usr/bin/env bash
# Writes the image fuzzer's seeds into tests/fuzz/seeds/image_file: small
# valid files of the layouts trelvo-render reads, each behind the byte that
# picks the reader and the way of reading (see image_file_fuzzer.cpp):
# bits 0-1 the extension (0 EXR, 1 PNG, 2 TIFF), bits 2-4 the mode (0 as the
# Source, 1 a nearest proxy, 2 a filtered proxy, 3 by channel names, 4 raw passes).
set -euo pipefail
cd "$(dirname "$0")"
out=seeds/image_file
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$out"

# seed NAME SELECTOR FILE: the selector byte (decimal) followed by the file.
seed() {
    printf "\\$(printf '%03o' "$2")" >"$out/$1"
    cat "$3" >>"$out/$1"
}

ramp="--nosoftwareattrib --pattern fill:topleft=0,0.2,0.4,1:topright=1,0.5,0,0.5:bottomleft=0.1,0.9,0.3,0:bottomright=0.7,0.7,0.7,1"

oiiotool $ramp 4x3 4 --attrib DateTime 2000:01:01_00:00:00 -d half --compression zip -o "$work/rgba_half_zip.exr"
oiiotool $ramp 5x2 4 --ch R,G,B --attrib DateTime 2000:01:01_00:00:00 -d float --compression piz -o "$work/rgb_float_piz.exr"
oiiotool $ramp 4x4 4 --attrib DateTime 2000:01:01_00:00:00 -d half --tile 2 2 --compression rle -o "$work/tiled_half.exr"
# A renderer's multilayer file: beauty and a motion pass side by side.
oiiotool $ramp 3x3 4 --chnames ViewLayer.Combined.R,ViewLayer.Combined.G,ViewLayer.Combined.B,ViewLayer.Combined.A \
    $ramp 3x3 4 --chnames ViewLayer.Vector.X,ViewLayer.Vector.Y,ViewLayer.Vector.Z,ViewLayer.Vector.W \
    --chappend --attrib DateTime 2000:01:01_00:00:00 -d float --compression zip -o "$work/multilayer.exr"
oiiotool $ramp 4x3 4 --attrib DateTime 2000:01:01_00:00:00 -d uint8 -o "$work/rgba8.png"
oiiotool $ramp 3x3 4 --ch R,A --chnames Y,A --attrib DateTime 2000:01:01_00:00:00 -d uint16 -o "$work/ya16.png"
oiiotool $ramp 4x3 4 --attrib DateTime 2000:01:01_00:00:00 -d uint16 --compression lzw -o "$work/rgba16_lzw.tif"
oiiotool $ramp 3x2 4 --ch R --attrib DateTime 2000:01:01_00:00:00 -d float -o "$work/y_float.tif"

seed exr_rgba_half_zip 0 "$work/rgba_half_zip.exr"
seed exr_rgb_float_piz_proxy 8 "$work/rgb_float_piz.exr"
seed exr_tiled_half_nearest 4 "$work/tiled_half.exr"
seed exr_multilayer_by_name 12 "$work/multilayer.exr"
seed exr_multilayer_passes 16 "$work/multilayer.exr"
seed png_rgba8 1 "$work/rgba8.png"
seed png_ya16_proxy 9 "$work/ya16.png"
seed tif_rgba16_lzw 2 "$work/rgba16_lzw.tif"
seed tif_y_float_by_name 14 "$work/y_float.tif"
ls -l "$out"
