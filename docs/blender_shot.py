# The Blender shot of the README's picture docs/from_blender.png: eight
# 320x180 frames of a camera panning past a checkered cube that slides right
# and turns, Cycles with the Vector pass on and motion blur off, written as
# OpenEXR MultiLayer beauty.0001.exr ... beauty.0008.exr in the current folder:
#   blender -b -noaudio --factory-startup -P docs/blender_shot.py -a
# The picture is frame 4 before, its vectors as trelvo-vectors writes them,
# and after trelvo-render --vectors-from blender --amount 0.5.
import math
import os

import bpy
scn = bpy.context.scene
for o in list(bpy.data.objects): bpy.data.objects.remove(o, do_unlink=True)
scn.render.engine = 'CYCLES'
scn.cycles.device = 'CPU'
scn.cycles.samples = 32
scn.cycles.use_denoising = False
scn.render.resolution_x = 320
scn.render.resolution_y = 180
scn.render.resolution_percentage = 100
scn.render.use_motion_blur = False
scn.frame_start = 1
scn.frame_end = 8
scn.view_settings.view_transform = 'Standard'
cam_data = bpy.data.cameras.new("cam")
cam = bpy.data.objects.new("cam", cam_data)
cam.location = (0, -12, 4)
cam.rotation_euler = (math.radians(75), 0, 0)
scn.collection.objects.link(cam)
scn.camera = cam
# Camera pans left to right.
for f, x in [(1, -1.0), (8, 1.0)]:
    cam.location.x = x
    cam.keyframe_insert(data_path="location", index=0, frame=f)
def checker(name, scale, c1, c2):
    m = bpy.data.materials.new(name)
    m.use_nodes = True
    nt = m.node_tree
    bsdf = nt.nodes["Principled BSDF"]
    ch = nt.nodes.new("ShaderNodeTexChecker")
    ch.inputs["Scale"].default_value = scale
    ch.inputs["Color1"].default_value = c1
    ch.inputs["Color2"].default_value = c2
    nt.links.new(ch.outputs["Color"], bsdf.inputs["Base Color"])
    return m
bpy.ops.mesh.primitive_plane_add(size=40, location=(0, 6, 0), rotation=(math.radians(90), 0, 0))
wall = bpy.context.active_object
wall.data.materials.append(checker("wall", 40, (0.6, 0.5, 0.3, 1), (0.1, 0.1, 0.15, 1)))
bpy.ops.mesh.primitive_plane_add(size=40, location=(0, 0, 0))
floor = bpy.context.active_object
floor.data.materials.append(checker("floor", 20, (0.3, 0.3, 0.3, 1), (0.05, 0.05, 0.05, 1)))
bpy.ops.mesh.primitive_cube_add(size=2.0, location=(0, 0, 1.5))
cube = bpy.context.active_object
cube.data.materials.append(checker("cube", 4, (0.8, 0.1, 0.1, 1), (0.9, 0.9, 0.8, 1)))
for f, x, rz in [(1, -4.0, 0.0), (8, 4.0, 120.0)]:
    cube.location.x = x
    cube.rotation_euler = (0, 0, math.radians(rz))
    cube.keyframe_insert(data_path="location", index=0, frame=f)
    cube.keyframe_insert(data_path="rotation_euler", index=2, frame=f)
for ob in (cam, cube):
    for fc in ob.animation_data.action.fcurves:
        for k in fc.keyframe_points: k.interpolation = 'LINEAR'
sun = bpy.data.objects.new("sun", bpy.data.lights.new("sun", 'SUN'))
sun.data.energy = 3.0
sun.rotation_euler = (math.radians(40), math.radians(20), 0)
scn.collection.objects.link(sun)
scn.world = bpy.data.worlds.new("w")
scn.world.color = (0.05, 0.05, 0.05)
vl = scn.view_layers[0]
vl.use_pass_vector = True
scn.render.image_settings.file_format = 'OPEN_EXR_MULTILAYER'
scn.render.image_settings.color_depth = '32'
scn.render.filepath = os.path.join(os.getcwd(), 'beauty.####')
