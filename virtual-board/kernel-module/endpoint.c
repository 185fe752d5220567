// SPDX-License-Identifier: GPL-2.0-only
/*
 * The MCTP endpoint behind a controller: it answers Discovery Notify and
 * refuses other control commands, as DSP0236 has it. Requests of more than one
 * packet are not for it: no control request that it knows needs two.
 */
#include <linux/bits.h>
#include <linux/string.h>

#include "board.h"

#define HEADER_VERSION 1
#define VERSION_MASK 0x0f
#define NULL_EID 0

#define FLAG_START BIT(7)
#define FLAG_END BIT(6)
#define FLAG_TAG_OWNER BIT(3)
#define TAG_MASK 0x07

#define TYPE_CONTROL 0x00
#define TYPE_VENDOR 0x7e
#define REQUEST_BIT BIT(7)
#define INSTANCE_MASK 0x1f
#define GET_EID 0x02
#define DISCOVERY_NOTIFY 0x0d
#define SUCCESS 0x00
#define ERROR 0x01
#define UNSUPPORTED_COMMAND 0x05

/* Type; Rq, D and instance; command: and in an answer the completion code. */
#define REQUEST_SIZE 3
#define ANSWER_SIZE 4
#define SHORT_SIZE 2

static bool is_for(const u8 *packet, size_t size, u8 eid)
{
	return size >= MCTP_HEADER_SIZE && size <= MCTP_PACKET_MAX &&
	       (packet[0] & VERSION_MASK) == HEADER_VERSION &&
	       (packet[1] == NULL_EID || packet[1] == eid);
}

static bool is_control_request(const u8 *packet, size_t size)
{
	const u8 whole = FLAG_START | FLAG_END | FLAG_TAG_OWNER;
	const u8 *message = packet + MCTP_HEADER_SIZE;

	return size >= MCTP_HEADER_SIZE + REQUEST_SIZE &&
	       (packet[3] & whole) == whole && message[0] == TYPE_CONTROL &&
	       (message[1] & REQUEST_BIT);
}

static u8 completion_of(u8 command)
{
	return command == DISCOVERY_NOTIFY ? SUCCESS : UNSUPPORTED_COMMAND;
}

/* Gives the message's size, 0 when there is none. */
static size_t spoil(u8 *message, enum answer how)
{
	switch (how) {
	case ANSWER_RIGHT:
		break;
	case ANSWER_NONE:
		return 0;
	case ANSWER_WRONG_TYPE:
		message[0] = TYPE_VENDOR;
		break;
	case ANSWER_WRONG_COMMAND:
		message[2] = GET_EID;
		break;
	case ANSWER_SHORT:
		return SHORT_SIZE;
	case ANSWER_ERROR:
		message[3] = ERROR;
		break;
	}
	return ANSWER_SIZE;
}

size_t endpoint_answer(struct endpoint *endpoint, const u8 *request,
		       size_t size, u8 answer[MCTP_PACKET_MAX])
{
	const u8 eid = READ_ONCE(endpoint->eid);
	const u8 *asked = request + MCTP_HEADER_SIZE;
	u8 *message = answer + MCTP_HEADER_SIZE;
	size_t message_size;

	if (!is_for(request, size, eid) || !is_control_request(request, size))
		return 0;
	atomic_inc(&endpoint->requests);
	answer[0] = HEADER_VERSION;
	answer[1] = request[2];
	answer[2] = eid;
	answer[3] = FLAG_START | FLAG_END | (request[3] & TAG_MASK);
	message[0] = TYPE_CONTROL;
	message[1] = asked[1] & INSTANCE_MASK;
	message[2] = asked[2];
	message[3] = completion_of(asked[2]);
	message_size = spoil(message, READ_ONCE(endpoint->answer));
	if (!message_size)
		return 0;
	atomic_inc(&endpoint->answers);
	return MCTP_HEADER_SIZE + message_size;
}
