# What U-Boot runs at a start, from the boot partition: everything it does is in boot.env.
setenv functions 0x50000000
load nvme 0:1 ${functions} boot.env
setenv functions_bytes ${filesize}
env import -t ${functions} ${functions_bytes}
load nvme 0:1 ${part_image} slot_part.fit
run start_device
reset
