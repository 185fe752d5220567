// SPDX-License-Identifier: GPL-2.0-only
/*
 * The platform driver "silvaco-i3c-master" with its two devices. As a board
 * after boot has them, both are bound when the module is loaded, and their MCTP
 * devices are up; from then on a device comes up a while after its bind.
 */
#include <linux/mod_devicetable.h>
#include <linux/module.h>

#include "board.h"

static struct controller controllers[CONTROLLER_COUNT] = {
	{ .endpoint.eid = 0x1d, .node_delay_ms = 150 },
	{ .endpoint.eid = 0x9d, .node_delay_ms = 150 },
};

static const struct platform_device_id names[] = {
	{ .name = "fff10000.i3c" },
	{ .name = "fff11000.i3c" },
	{},
};

static bool booting;

struct controller *controller_of(struct device *dev)
{
	unsigned int index = 0;

	while (dev != &controllers[index].pdev->dev)
		index++;
	return &controllers[index];
}

unsigned int controller_index(const struct controller *controller)
{
	return controller - controllers;
}

static void bring_up(struct controller *controller)
{
	struct mctp_device *device = mctp_device_create(controller);

	if (IS_ERR(device)) {
		dev_err(&controller->pdev->dev, "no MCTP device: %ld\n",
			PTR_ERR(device));
		return;
	}
	controller->device = device;
	record("up %u", controller_index(controller));
}

static void come_up(struct work_struct *work)
{
	bring_up(container_of(to_delayed_work(work), struct controller,
			      coming_up));
}

static void start_coming_up(struct controller *controller)
{
	const int delay = READ_ONCE(controller->node_delay_ms);

	if (booting)
		bring_up(controller);
	else if (delay >= 0)
		schedule_delayed_work(&controller->coming_up,
				      msecs_to_jiffies(delay));
}

static int i3c_probe(struct platform_device *pdev)
{
	struct controller *controller = controller_of(&pdev->dev);
	const int error = READ_ONCE(controller->probe_error);

	if (error)
		return -error;
	start_coming_up(controller);
	return 0;
}

static int i3c_remove(struct platform_device *pdev)
{
	struct controller *controller = controller_of(&pdev->dev);

	cancel_delayed_work_sync(&controller->coming_up);
	if (controller->device) {
		mctp_device_destroy(controller->device);
		controller->device = NULL;
		record("down %u", controller_index(controller));
	}
	return 0;
}

static struct platform_driver i3c_driver = {
	.probe = i3c_probe,
	.remove = i3c_remove,
	.id_table = names,
	.driver = {
		.name = "silvaco-i3c-master",
	},
};

static void remove_controllers(void)
{
	unsigned int index;

	for (index = 0; index < CONTROLLER_COUNT; index++)
		platform_device_unregister(controllers[index].pdev);
}

static int add_controller(unsigned int index)
{
	struct controller *controller = &controllers[index];
	struct platform_device *pdev =
		platform_device_alloc(names[index].name, PLATFORM_DEVID_NONE);
	int error;

	if (!pdev)
		return -ENOMEM;
	controller->pdev = pdev;
	INIT_DELAYED_WORK(&controller->coming_up, come_up);
	pdev->dev.groups = settings_groups;
	error = platform_device_add(pdev);
	if (error) {
		platform_device_put(pdev);
		controller->pdev = NULL;
	}
	return error;
}

static int add_controllers(void)
{
	unsigned int index;
	int error = 0;

	for (index = 0; !error && index < CONTROLLER_COUNT; index++)
		error = add_controller(index);
	if (error)
		remove_controllers();
	return error;
}

static int __init board_init(void)
{
	int error = mctp_devices_init();

	if (error)
		return error;
	error = platform_driver_register(&i3c_driver);
	if (error)
		goto no_devices;
	error = record_driver_writes(&i3c_driver.driver);
	if (error)
		goto no_driver;
	booting = true;
	error = add_controllers();
	booting = false;
	if (error)
		goto no_records;
	return 0;

no_records:
	record_no_driver_writes();
no_driver:
	platform_driver_unregister(&i3c_driver);
no_devices:
	mctp_devices_exit();
	return error;
}

static void __exit board_exit(void)
{
	remove_controllers();
	record_no_driver_writes();
	platform_driver_unregister(&i3c_driver);
	mctp_devices_exit();
}

module_init(board_init);
module_exit(board_exit);

MODULE_DESCRIPTION("Two simulated I3C controllers with MCTP endpoints");
MODULE_AUTHOR("The morrow developers");
MODULE_LICENSE("GPL");
