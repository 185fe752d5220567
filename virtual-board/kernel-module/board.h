/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * A board's two I3C controllers with an MCTP endpoint behind each, for a kernel
 * that has neither: what a daemon sees of them in sysfs, in devtmpfs and
 * through the device nodes is made by the kernel's own driver core.
 *
 * controller.c is the platform driver "silvaco-i3c-master" and its two devices.
 * A bound controller brings an MCTP device up after a while (mctp_device.c: the
 * node), whose packets go to the controller's endpoint (endpoint.c). The
 * controller and its endpoint outlive every unbind, and so do the settings,
 * which are files in the directory "board" of the platform device (settings.c).
 * Events go to the kernel's log (record.c).
 */
#ifndef BOARD_H
#define BOARD_H

#include <linux/atomic.h>
#include <linux/platform_device.h>
#include <linux/types.h>
#include <linux/workqueue.h>

#define CONTROLLER_COUNT 2

/* An MCTP header of 4 bytes and a body of 64, the baseline unit (DSP0236). */
#define MCTP_HEADER_SIZE 4
#define MCTP_PACKET_MAX 68

struct mctp_device;

/* How an endpoint answers Discovery Notify. */
enum answer {
	ANSWER_RIGHT,
	ANSWER_NONE,
	ANSWER_WRONG_TYPE,
	ANSWER_WRONG_COMMAND,
	ANSWER_SHORT,
	ANSWER_ERROR,
};

/* Numbers a user sets are plain ints: each is read once where it is needed. */
struct endpoint {
	int eid;
	int answer;
	atomic_t requests;
	atomic_t answers;
};

struct controller {
	struct platform_device *pdev;
	struct endpoint endpoint;
	int probe_error;
	int node_delay_ms; /* negative: no node ever comes up */
	struct delayed_work coming_up;
	struct mctp_device *device; /* while it is up */
};

/* controller.c */
struct controller *controller_of(struct device *dev);
unsigned int controller_index(const struct controller *controller);

/* endpoint.c: gives the answer's size, 0 when there is none. */
size_t endpoint_answer(struct endpoint *endpoint, const u8 *request,
		       size_t size, u8 answer[MCTP_PACKET_MAX]);

/* mctp_device.c */
int mctp_devices_init(void);
void mctp_devices_exit(void);
struct mctp_device *mctp_device_create(struct controller *controller);
void mctp_device_destroy(struct mctp_device *device);

/* record.c: each event is a line "event MICROSECONDS TEXT", real time. */
int record_driver_writes(struct device_driver *driver);
void record_no_driver_writes(void);
__printf(1, 2) void record(const char *format, ...);

/* settings.c */
extern const struct attribute_group *settings_groups[];

#endif
