// SPDX-License-Identifier: GPL-2.0-only
/*
 * A controller's settings and counters: one file for each in the directory
 * "board" of its platform device. A setting holds at once; what a probe looks
 * at, from the next bind on.
 */
#include <linux/device.h>
#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/stddef.h>
#include <linux/string.h>
#include <linux/sysfs.h>

#include "board.h"

#define A_MINUTE 60000

/* A number of struct controller. */
struct number_attribute {
	struct device_attribute attribute;
	size_t offset;
	int least;
	int most;
};

static struct number_attribute *to_number(struct device_attribute *attribute)
{
	return container_of(attribute, struct number_attribute, attribute);
}

static int *setting_of(struct device *dev, struct device_attribute *attribute)
{
	return (void *)controller_of(dev) + to_number(attribute)->offset;
}

static ssize_t setting_show(struct device *dev,
			    struct device_attribute *attribute, char *text)
{
	return sysfs_emit(text, "%d\n", READ_ONCE(*setting_of(dev, attribute)));
}

static ssize_t setting_store(struct device *dev,
			     struct device_attribute *attribute,
			     const char *text, size_t size)
{
	const struct number_attribute *number = to_number(attribute);
	int value;
	int error = kstrtoint(text, 0, &value);

	if (error)
		return error;
	if (value < number->least || value > number->most)
		return -ERANGE;
	WRITE_ONCE(*setting_of(dev, attribute), value);
	return size;
}

static ssize_t counter_show(struct device *dev,
			    struct device_attribute *attribute, char *text)
{
	const atomic_t *counter =
		(void *)controller_of(dev) + to_number(attribute)->offset;

	return sysfs_emit(text, "%d\n", atomic_read(counter));
}

#define SETTING(_name, _member, _least, _most)                        \
	static struct number_attribute _name = {                      \
		__ATTR(_name, 0644, setting_show, setting_store),     \
		offsetof(struct controller, _member), _least, _most   \
	}

#define COUNTER(_name, _member)                                       \
	static struct number_attribute _name = {                      \
		__ATTR(_name, 0444, counter_show, NULL),              \
		offsetof(struct controller, _member), 0, 0            \
	}

SETTING(eid, endpoint.eid, 0, 0xff);
SETTING(probe_error, probe_error, 0, MAX_ERRNO);
SETTING(node_delay_ms, node_delay_ms, -1, A_MINUTE);
COUNTER(requests, endpoint.requests);
COUNTER(answers, endpoint.answers);

static const char *const answer_names[] = {
	[ANSWER_RIGHT] = "right",
	[ANSWER_NONE] = "none",
	[ANSWER_WRONG_TYPE] = "wrong-type",
	[ANSWER_WRONG_COMMAND] = "wrong-command",
	[ANSWER_SHORT] = "short",
	[ANSWER_ERROR] = "error",
};

static ssize_t answer_show(struct device *dev,
			   struct device_attribute *attribute, char *text)
{
	const int answer = READ_ONCE(controller_of(dev)->endpoint.answer);

	return sysfs_emit(text, "%s\n", answer_names[answer]);
}

static ssize_t answer_store(struct device *dev,
			    struct device_attribute *attribute,
			    const char *text, size_t size)
{
	const int answer = sysfs_match_string(answer_names, text);

	if (answer < 0)
		return answer;
	WRITE_ONCE(controller_of(dev)->endpoint.answer, answer);
	return size;
}

static DEVICE_ATTR_RW(answer);

static struct attribute *settings[] = {
	&eid.attribute.attr,
	&dev_attr_answer.attr,
	&probe_error.attribute.attr,
	&node_delay_ms.attribute.attr,
	&requests.attribute.attr,
	&answers.attribute.attr,
	NULL,
};

static const struct attribute_group settings_group = {
	.name = "board",
	.attrs = settings,
};

const struct attribute_group *settings_groups[] = {
	&settings_group,
	NULL,
};
