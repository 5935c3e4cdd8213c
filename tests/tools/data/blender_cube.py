# Renders blender_cube.0002.exr, the test fixture of a real Blender Vector
# pass: a 160x90 orthographic view, 10 px per unit, of a cube at the centre
# on frame 2 that moved 10 px right and 5 px up from frame 1 and moves 20 px
# right and 10 px up to frame 3. Cycles, 4 samples, no motion blur, Vector
# pass on, OpenEXR MultiLayer. Made with Blender 3.4 (Debian 12):
#   blender -b -noaudio --factory-startup -P blender_cube.py -f 2
import os

import bpy

scene = bpy.context.scene
for ob in list(bpy.data.objects):
    bpy.data.objects.remove(ob, do_unlink=True)
scene.render.engine = 'CYCLES'
scene.cycles.device = 'CPU'
scene.cycles.samples = 4
scene.cycles.use_denoising = False
scene.view_layers[0].cycles.denoising_store_passes = False
scene.render.resolution_x = 160
scene.render.resolution_y = 90
scene.render.resolution_percentage = 100
scene.render.use_motion_blur = False

camera = bpy.data.objects.new("camera", bpy.data.cameras.new("camera"))
camera.data.type = 'ORTHO'
camera.data.ortho_scale = 16.0
camera.location = (0, 0, 10)
scene.collection.objects.link(camera)
scene.camera = camera

bpy.ops.mesh.primitive_cube_add(size=2.0, location=(0, 0, 0))
cube = bpy.context.active_object
for frame, x, y in [(1, -1.0, -0.5), (2, 0.0, 0.0), (3, 2.0, 1.0)]:
    cube.location = (x, y, 0)
    cube.keyframe_insert(data_path="location", frame=frame)
for curve in cube.animation_data.action.fcurves:
    for key in curve.keyframe_points:
        key.interpolation = 'LINEAR'
sun = bpy.data.objects.new("sun", bpy.data.lights.new("sun", 'SUN'))
scene.collection.objects.link(sun)

scene.view_layers[0].use_pass_vector = True
scene.render.image_settings.file_format = 'OPEN_EXR_MULTILAYER'
scene.render.image_settings.color_depth = '32'
scene.render.filepath = os.path.join(os.path.dirname(os.path.abspath(__file__)), "blender_cube.####")
