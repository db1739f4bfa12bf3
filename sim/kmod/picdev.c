// SPDX-License-Identifier: GPL-2.0
/*
 * Stand-in picdev module for a guest without the appliance's board: it does
 * nothing but exist, so that "rmmod picdev" and "modprobe picdev" unload and
 * load something. tarnhold-sim-cuse follows /sys/module/picdev and serves
 * the device node while it is loaded.
 */
#include <linux/init.h>
#include <linux/module.h>

static int __init picdev_init(void)
{
	return 0;
}

static void __exit picdev_exit(void)
{
}

module_init(picdev_init);
module_exit(picdev_exit);

MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Stand-in picdev driver for the simulated appliance");
