# %% A run from Python, cell by cell; also a plain script: notebook.py FOLDER, made by examples/marine or examples/land
import sys

import matplotlib.pyplot as plt
import morvane

folder = sys.argv[1] if len(sys.argv) > 1 else "marine"
run = morvane.Run(folder + "/run")

# %% How the run went
course = run.course()
print(course["fun"], "accepted:", course["accepted"].sum() - 1)

# %% Start and last model
velocity = run.read("Velout")
figure, row = plt.subplots(1, 2, figsize=(12, 4), layout="constrained")
for ax, panel in zip(row, (0, -1)):
    morvane.show(velocity, panel, ax=ax, label="velocity")

# %% Image at zero offset, and the gathers at the middle of the line
image = run.read("bkgimg")
morvane.show(image, -1)
gathers = image.panel(-1)[:, :, image.n[0] // 2]      # depth, offset
print("greatest amplitude at offset", image.axis(2)[abs(gathers).max(axis=0).argmax()])

# %% Another start model: the last one, smoothed over 5 columns
last = velocity.panel(-1)
smooth = sum(last[:, k:last.shape[1] - 4 + k] for k in range(5)) / 5
last[:, 2:-2] = smooth
morvane.write(folder + "/smooth.H", 1 / last, d=(velocity.d[0], velocity.d[2]), o=(velocity.o[0], velocity.o[2]), axes=(1, 3))
