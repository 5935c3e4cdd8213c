# The Blender shot of the README's picture docs/from_footage.png, made to
# stand for plain footage: ten 640x360 frames of a camera trucking right and
# panning past a brick wall, a stone floor and a crate, while a small ball
# (about 40 pixels across) flies across the frame, about 40 pixels a frame
# one way while the wall moves about 30 the other.
# Cycles, textured materials, no motion blur; OpenEXR MultiLayer with the
# Vector pass, beauty.0001.exr ... beauty.0010.exr, in the current folder:
#   blender -b -noaudio --factory-startup -P docs/footage_shot.py -a
# After "--", options change the render:
#   -- blur          the same shot with Blender's own motion blur, shutter 0.5
#                    frame centred on each frame, as truth.####.exr (RGBA)
#   -- scale N       resolution percentage (300 for 1920x1080)
#   -- samples N     Cycles samples (default 48)
#   -- frames N      frames 1..N (default 10)
# Only the beauty is the footage (the Vector pass is there to compare with):
#   for f in 01 02 03 04 05 06 07 08 09 10; do
#     oiiotool beauty.00$f.exr --ch ViewLayer.Combined.R,ViewLayer.Combined.G,ViewLayer.Combined.B,\
#   ViewLayer.Combined.A --chnames R,G,B,A -o plate.00$f.exr; done
# The picture is frame 4: the footage, its estimated vectors as colour (with
# M fixed at 64, the shot's largest true motion, so that a few stray vectors
# do not pale the rest) and the blur:
#   trelvo-vectors --source plate.####.exr --vectors estimate --max-displace 64 \
#                  --output mv.####.exr --preview look.####.png
#   trelvo-render --source plate.####.exr --vectors estimate --amount 0.5 --output blur.####.exr
#   oiiotool plate.0004.exr --ch R,G,B --colorconvert linear sRGB --resize 427x240 -d uint8 \
#            look.0004.png --ch R,G,B --resize 427x240 \
#            blur.0004.exr --ch R,G,B --colorconvert linear sRGB --resize 427x240 -d uint8 \
#            --mosaic:pad=4 3x1 -d uint8 -o docs/from_footage.png
# Against truth.####.exr, frame by frame over R, G, B (oiiotool A --ch R,G,B B --ch R,G,B --diff),
# the blur scores its Peak SNR; so does the blur with the renderer's vectors
# (trelvo-render --source beauty.####.exr --vectors beauty.####.exr --vectors-from blender).
import math
import os
import sys

import bpy

args = sys.argv[sys.argv.index("--") + 1:] if "--" in sys.argv else []
def option(name, default):
    return type(default)(args[args.index(name) + 1]) if name in args else default
blur = "blur" in args

scn = bpy.context.scene
for o in list(bpy.data.objects): bpy.data.objects.remove(o, do_unlink=True)
scn.render.engine = 'CYCLES'
scn.cycles.device = 'CPU'
scn.cycles.samples = option("samples", 48)
scn.cycles.use_denoising = False
scn.cycles.seed = 7
scn.render.resolution_x = 640
scn.render.resolution_y = 360
scn.render.resolution_percentage = option("scale", 100)
scn.render.use_motion_blur = blur
scn.render.motion_blur_shutter = 0.5
scn.cycles.motion_blur_position = 'CENTER'
scn.frame_start = 1
scn.frame_end = option("frames", 10)
scn.view_settings.view_transform = 'Standard'

def linear(ob):
    for fc in ob.animation_data.action.fcurves:
        for k in fc.keyframe_points: k.interpolation = 'LINEAR'

# Camera: trucks right and pans a little left, so depth shows as parallax.
cam = bpy.data.objects.new("cam", bpy.data.cameras.new("cam"))
cam.data.lens = 40
scn.collection.objects.link(cam)
scn.camera = cam
for f, x, pan in [(1, -1.5, 8.0), (10, 1.5, -4.0)]:
    cam.location = (x, -11, 2.2)
    cam.rotation_euler = (math.radians(84), 0, math.radians(pan))
    cam.keyframe_insert(data_path="location", frame=f)
    cam.keyframe_insert(data_path="rotation_euler", frame=f)
linear(cam)

def material(name, build):
    m = bpy.data.materials.new(name)
    m.use_nodes = True
    nt = m.node_tree
    # Textures in the object's own metres.
    coords = nt.nodes.new("ShaderNodeTexCoord").outputs["Object"]
    build(nt, coords, nt.nodes["Principled BSDF"])
    return m

def grime(nt, coords, scale, low):
    """Grey noise from `low` to 1, to multiply a colour with."""
    n = nt.nodes.new("ShaderNodeTexNoise")
    n.inputs["Scale"].default_value = scale
    n.inputs["Detail"].default_value = 6.0
    nt.links.new(coords, n.inputs["Vector"])
    ramp = nt.nodes.new("ShaderNodeValToRGB")
    ramp.color_ramp.elements[0].color = (low, low, low, 1)
    nt.links.new(n.outputs["Fac"], ramp.inputs["Fac"])
    return ramp.outputs["Color"]

def multiply(nt, a, b, bsdf):
    mix = nt.nodes.new("ShaderNodeMixRGB")
    mix.blend_type = 'MULTIPLY'
    mix.inputs["Fac"].default_value = 1.0
    nt.links.new(a, mix.inputs["Color1"])
    nt.links.new(b, mix.inputs["Color2"])
    nt.links.new(mix.outputs["Color"], bsdf.inputs["Base Color"])

def bricks(nt, coords, bsdf):
    b = nt.nodes.new("ShaderNodeTexBrick")
    b.inputs["Scale"].default_value = 1.0
    b.inputs["Mortar Size"].default_value = 0.015
    b.inputs["Color1"].default_value = (0.55, 0.22, 0.12, 1)
    b.inputs["Color2"].default_value = (0.30, 0.14, 0.09, 1)
    b.inputs["Mortar"].default_value = (0.6, 0.58, 0.52, 1)
    nt.links.new(coords, b.inputs["Vector"])
    multiply(nt, b.outputs["Color"], grime(nt, coords, 6.0, 0.45), bsdf)

def stone(nt, coords, bsdf):
    v = nt.nodes.new("ShaderNodeTexVoronoi")
    v.inputs["Scale"].default_value = 2.0
    nt.links.new(coords, v.inputs["Vector"])
    ramp = nt.nodes.new("ShaderNodeValToRGB")
    ramp.color_ramp.elements[0].color = (0.05, 0.05, 0.045, 1)
    ramp.color_ramp.elements[1].color = (0.45, 0.43, 0.38, 1)
    nt.links.new(v.outputs["Distance"], ramp.inputs["Fac"])
    multiply(nt, ramp.outputs["Color"], grime(nt, coords, 8.0, 0.5), bsdf)

def wood(nt, coords, bsdf):
    w = nt.nodes.new("ShaderNodeTexWave")
    w.inputs["Scale"].default_value = 3.0
    w.inputs["Distortion"].default_value = 6.0
    nt.links.new(coords, w.inputs["Vector"])
    ramp = nt.nodes.new("ShaderNodeValToRGB")
    ramp.color_ramp.elements[0].color = (0.25, 0.13, 0.05, 1)
    ramp.color_ramp.elements[1].color = (0.75, 0.5, 0.25, 1)
    nt.links.new(w.outputs["Color"], ramp.inputs["Fac"])
    nt.links.new(ramp.outputs["Color"], bsdf.inputs["Base Color"])

def ball(nt, coords, bsdf):
    c = nt.nodes.new("ShaderNodeTexChecker")
    c.inputs["Scale"].default_value = 6.0
    c.inputs["Color1"].default_value = (0.9, 0.85, 0.1, 1)
    c.inputs["Color2"].default_value = (0.1, 0.2, 0.8, 1)
    nt.links.new(c.outputs["Color"], bsdf.inputs["Base Color"])

bpy.ops.mesh.primitive_plane_add(size=40, location=(0, 5, 0), rotation=(math.radians(90), 0, 0))
bpy.context.active_object.data.materials.append(material("wall", bricks))
bpy.ops.mesh.primitive_plane_add(size=40, location=(0, 0, 0))
bpy.context.active_object.data.materials.append(material("floor", stone))

# A crate nearer the camera, sliding left and turning.
bpy.ops.mesh.primitive_cube_add(size=1.6, location=(0, -1, 0.8))
crate = bpy.context.active_object
crate.data.materials.append(material("crate", wood))
for f, x, rz in [(1, 1.0, 10.0), (10, -1.0, 50.0)]:
    crate.location.x = x
    crate.rotation_euler = (0, 0, math.radians(rz))
    crate.keyframe_insert(data_path="location", index=0, frame=f)
    crate.keyframe_insert(data_path="rotation_euler", index=2, frame=f)
linear(crate)

# The small fast object: a ball flying right and a little up, spinning.
bpy.ops.mesh.primitive_uv_sphere_add(radius=0.22, location=(-3.2, -3, 1.6), segments=32, ring_count=16)
bpy.ops.object.shade_smooth()
sphere = bpy.context.active_object
sphere.data.materials.append(material("ball", ball))
for f, x, z, spin in [(1, -3.6, 1.4, 0.0), (10, 3.4, 2.3, 540.0)]:
    sphere.location.x = x
    sphere.location.z = z
    sphere.rotation_euler = (0, math.radians(spin), 0)
    sphere.keyframe_insert(data_path="location", frame=f)
    sphere.keyframe_insert(data_path="rotation_euler", index=1, frame=f)
linear(sphere)

sun = bpy.data.objects.new("sun", bpy.data.lights.new("sun", 'SUN'))
sun.data.energy = 3.5
sun.rotation_euler = (math.radians(50), math.radians(25), math.radians(-30))
scn.collection.objects.link(sun)
scn.world = bpy.data.worlds.new("w")
scn.world.color = (0.25, 0.27, 0.3)

vl = scn.view_layers[0]
vl.use_pass_vector = not blur
if blur:
    scn.render.image_settings.file_format = 'OPEN_EXR'
    scn.render.image_settings.color_mode = 'RGBA'
    scn.render.filepath = os.path.join(os.getcwd(), 'truth.####')
else:
    scn.render.image_settings.file_format = 'OPEN_EXR_MULTILAYER'
    scn.render.filepath = os.path.join(os.getcwd(), 'beauty.####')
scn.render.image_settings.color_depth = '32'
