// SPDX-License-Identifier: GPL-2.0-only
/*
 * The character device of one MCTP device, from its coming up to its driver's
 * leaving: one packet per write and per read, one opener at a time. A read
 * never waits: EAGAIN says that there is no packet, poll waits for one.
 *
 * A device lives as long as somebody has it open, also after its driver has
 * left; then everything but closing gives ENODEV.
 */
#include <linux/cdev.h>
#include <linux/device.h>
#include <linux/fs.h>
#include <linux/idr.h>
#include <linux/list.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/poll.h>
#include <linux/slab.h>
#include <linux/uaccess.h>

#include "board.h"

#define CLASS_NAME "i3c-mctp"

/* Nobody asks more often than this without looking at the answers. */
#define WAITING_MAX 64

struct packet {
	struct list_head entry;
	size_t size;
	u8 bytes[MCTP_PACKET_MAX];
};

struct mctp_device {
	struct device dev;
	struct cdev cdev;
	struct controller *controller;
	wait_queue_head_t changed;
	struct mutex lock; /* guards what follows */
	struct list_head waiting;
	unsigned int waiting_count;
	bool opened;
	bool gone;
};

static struct class *mctp_class;
static dev_t first_number;
static DEFINE_IDA(numbers);

static void drop_waiting(struct mctp_device *device)
{
	struct packet *packet, *next;

	list_for_each_entry_safe(packet, next, &device->waiting, entry) {
		list_del(&packet->entry);
		kfree(packet);
	}
	device->waiting_count = 0;
}

static int mctp_open(struct inode *inode, struct file *file)
{
	struct mctp_device *device =
		container_of(inode->i_cdev, struct mctp_device, cdev);
	int error = 0;

	mutex_lock(&device->lock);
	if (device->gone)
		error = -ENODEV;
	else if (device->opened)
		error = -EBUSY;
	else
		device->opened = true;
	mutex_unlock(&device->lock);
	record("open %s %d", dev_name(&device->dev), -error);
	if (error)
		return error;
	file->private_data = device;
	return stream_open(inode, file);
}

static int mctp_release(struct inode *inode, struct file *file)
{
	struct mctp_device *device = file->private_data;

	mutex_lock(&device->lock);
	device->opened = false;
	mutex_unlock(&device->lock);
	record("close %s", dev_name(&device->dev));
	return 0;
}

/* Takes the first packet, which is the caller's then. */
static struct packet *take_packet(struct mctp_device *device)
{
	struct packet *packet;

	mutex_lock(&device->lock);
	if (device->gone) {
		packet = ERR_PTR(-ENODEV);
	} else if (list_empty(&device->waiting)) {
		packet = ERR_PTR(-EAGAIN);
	} else {
		packet = list_first_entry(&device->waiting, struct packet,
					  entry);
		list_del(&packet->entry);
		device->waiting_count--;
	}
	mutex_unlock(&device->lock);
	return packet;
}

/* A reader with too small a buffer loses the rest, as with a datagram. */
static ssize_t mctp_read(struct file *file, char __user *buffer, size_t size,
			 loff_t *offset)
{
	struct mctp_device *device = file->private_data;
	struct packet *packet = take_packet(device);
	ssize_t result;

	if (IS_ERR(packet))
		return PTR_ERR(packet);
	record("packet %s < %*ph", dev_name(&device->dev), (int)packet->size,
	       packet->bytes);
	result = min(size, packet->size);
	if (copy_to_user(buffer, packet->bytes, result))
		result = -EFAULT;
	kfree(packet);
	return result;
}

/* Takes the packet over. */
static int receive(struct mctp_device *device, struct packet *packet)
{
	int error = 0;

	mutex_lock(&device->lock);
	if (device->gone) {
		error = -ENODEV;
	} else if (packet->size > 0 && device->waiting_count < WAITING_MAX) {
		list_add_tail(&packet->entry, &device->waiting);
		device->waiting_count++;
		packet = NULL;
	}
	mutex_unlock(&device->lock);
	kfree(packet);
	if (!error)
		wake_up_interruptible(&device->changed);
	return error;
}

static bool is_gone(struct mctp_device *device)
{
	bool gone;

	mutex_lock(&device->lock);
	gone = device->gone;
	mutex_unlock(&device->lock);
	return gone;
}

static ssize_t mctp_write(struct file *file, const char __user *buffer,
			  size_t size, loff_t *offset)
{
	struct mctp_device *device = file->private_data;
	u8 request[MCTP_PACKET_MAX];
	struct packet *answer;
	int error;

	if (is_gone(device))
		return -ENODEV;
	if (size > sizeof(request))
		return -EINVAL;
	if (copy_from_user(request, buffer, size))
		return -EFAULT;
	answer = kzalloc(sizeof(*answer), GFP_KERNEL);
	if (!answer)
		return -ENOMEM;
	record("packet %s > %*ph", dev_name(&device->dev), (int)size, request);
	answer->size = endpoint_answer(&device->controller->endpoint, request,
				       size, answer->bytes);
	error = receive(device, answer);
	return error ? error : size;
}

static __poll_t mctp_poll(struct file *file, poll_table *wait)
{
	struct mctp_device *device = file->private_data;
	__poll_t ready = EPOLLOUT | EPOLLWRNORM;

	poll_wait(file, &device->changed, wait);
	mutex_lock(&device->lock);
	if (device->gone)
		ready = EPOLLHUP | EPOLLERR;
	else if (!list_empty(&device->waiting))
		ready |= EPOLLIN | EPOLLRDNORM;
	mutex_unlock(&device->lock);
	return ready;
}

static const struct file_operations mctp_operations = {
	.owner = THIS_MODULE,
	.open = mctp_open,
	.release = mctp_release,
	.read = mctp_read,
	.write = mctp_write,
	.poll = mctp_poll,
	.llseek = no_llseek,
};

static void mctp_device_release(struct device *dev)
{
	struct mctp_device *device =
		container_of(dev, struct mctp_device, dev);

	drop_waiting(device);
	kfree(device);
}

static void initialise(struct mctp_device *device,
		       struct controller *controller, int number)
{
	device->controller = controller;
	init_waitqueue_head(&device->changed);
	mutex_init(&device->lock);
	INIT_LIST_HEAD(&device->waiting);
	device_initialize(&device->dev);
	device->dev.class = mctp_class;
	device->dev.parent = &controller->pdev->dev;
	device->dev.devt = MKDEV(MAJOR(first_number), number);
	device->dev.release = mctp_device_release;
	cdev_init(&device->cdev, &mctp_operations);
	device->cdev.owner = THIS_MODULE;
}

/* Brings one up under the lowest free number. */
struct mctp_device *mctp_device_create(struct controller *controller)
{
	struct mctp_device *device;
	int number, error;

	number = ida_alloc_max(&numbers, CONTROLLER_COUNT - 1, GFP_KERNEL);
	if (number < 0)
		return ERR_PTR(number);
	device = kzalloc(sizeof(*device), GFP_KERNEL);
	if (!device) {
		error = -ENOMEM;
		goto free_number;
	}
	initialise(device, controller, number);
	error = dev_set_name(&device->dev, CLASS_NAME "-%d", number);
	if (!error)
		error = cdev_device_add(&device->cdev, &device->dev);
	if (error)
		goto put_device;
	return device;

put_device:
	put_device(&device->dev);
free_number:
	ida_free(&numbers, number);
	return ERR_PTR(error);
}

/* The driver leaves it: whoever has it open gets errors. */
void mctp_device_destroy(struct mctp_device *device)
{
	const int number = MINOR(device->dev.devt);

	mutex_lock(&device->lock);
	device->gone = true;
	drop_waiting(device);
	mutex_unlock(&device->lock);
	wake_up_interruptible(&device->changed);
	cdev_device_del(&device->cdev, &device->dev);
	put_device(&device->dev);
	ida_free(&numbers, number);
}

int mctp_devices_init(void)
{
	int error = alloc_chrdev_region(&first_number, 0, CONTROLLER_COUNT,
					CLASS_NAME);

	if (error)
		return error;
	mctp_class = class_create(THIS_MODULE, CLASS_NAME);
	if (IS_ERR(mctp_class)) {
		unregister_chrdev_region(first_number, CONTROLLER_COUNT);
		return PTR_ERR(mctp_class);
	}
	return 0;
}

void mctp_devices_exit(void)
{
	class_destroy(mctp_class);
	unregister_chrdev_region(first_number, CONTROLLER_COUNT);
}
