// SPDX-License-Identifier: GPL-2.0-only
/*
 * The board's events, in the kernel's log with the time of day in microseconds,
 * which is the clock that a journal sorts its records by.
 *
 * A write to the driver's bind or unbind file ends in the driver core, which
 * refuses many of them without asking the driver. To report these as well,
 * the two functions behind the files are probed.
 */
#define pr_fmt(fmt) KBUILD_MODNAME ": " fmt

#include <linux/kprobes.h>
#include <linux/printk.h>
#include <linux/string.h>
#include <linux/timekeeping.h>

#include "board.h"

#define NAME_MAX_SIZE 64

static struct device_driver *watched;

/* What an entry leaves for its return: the name as it was written. */
struct driver_write {
	char controller[NAME_MAX_SIZE];
};

void record(const char *format, ...)
{
	struct va_format text = { .fmt = format };
	va_list values;

	va_start(values, format);
	text.va = &values;
	pr_info("event %lld %pV\n", ktime_to_us(ktime_get_real()), &text);
	va_end(values);
}

/* Of bind_store() and unbind_store(): (driver, text, size). */
static int on_entry(struct kretprobe_instance *call, struct pt_regs *regs)
{
	struct driver_write *write = (void *)call->data;
	const char *text = (void *)regs_get_kernel_argument(regs, 1);

	if ((void *)regs_get_kernel_argument(regs, 0) != watched)
		return 1;
	strscpy(write->controller, text, sizeof(write->controller));
	strim(write->controller);
	return 0;
}

static void record_write(const char *file, struct kretprobe_instance *call,
			 struct pt_regs *regs)
{
	const struct driver_write *write = (void *)call->data;
	const long result = regs_return_value(regs);

	record("write %s %s %ld", file, write->controller,
	       result < 0 ? -result : 0);
}

static int on_bind(struct kretprobe_instance *call, struct pt_regs *regs)
{
	record_write("bind", call, regs);
	return 0;
}

static int on_unbind(struct kretprobe_instance *call, struct pt_regs *regs)
{
	record_write("unbind", call, regs);
	return 0;
}

static struct kretprobe bind_probe = {
	.kp.symbol_name = "bind_store",
	.entry_handler = on_entry,
	.handler = on_bind,
	.data_size = sizeof(struct driver_write),
};

static struct kretprobe unbind_probe = {
	.kp.symbol_name = "unbind_store",
	.entry_handler = on_entry,
	.handler = on_unbind,
	.data_size = sizeof(struct driver_write),
};

static struct kretprobe *probes[] = { &bind_probe, &unbind_probe };

int record_driver_writes(struct device_driver *driver)
{
	watched = driver;
	return register_kretprobes(probes, ARRAY_SIZE(probes));
}

void record_no_driver_writes(void)
{
	unregister_kretprobes(probes, ARRAY_SIZE(probes));
}
