// A consumer on amqp091-go: hands every message of the type "job" to the process at SOCKET and acknowledges it when that
// has answered; messages of another type are rejected. Runs until it is ended.
//
//	go_peer URL QUEUE PREFETCH SOCKET
package main

import (
	"bufio"
	"encoding/binary"
	"log"
	"net"
	"os"
	"strconv"

	amqp "github.com/rabbitmq/amqp091-go"
)

func require(err error) {
	if err != nil {
		log.Fatal(err)
	}
}

func consume(url string, queue string, prefetch int) <-chan amqp.Delivery {
	connection, err := amqp.Dial(url)
	require(err)
	channel, err := connection.Channel()
	require(err)
	require(channel.Qos(prefetch, 0, false))
	deliveries, err := channel.Consume(queue, "", false, false, false, false, nil)
	require(err)
	return deliveries
}

// acknowledge settles what the worker has answered; it answers in the order of the messages.
func acknowledge(worker net.Conn, handedOver <-chan amqp.Delivery) {
	verdicts := bufio.NewReader(worker)
	for delivery := range handedOver {
		_, err := verdicts.ReadByte()
		require(err)
		require(delivery.Ack(false))
	}
}

func main() {
	prefetch, err := strconv.Atoi(os.Args[3])
	require(err)
	worker, err := net.Dial("unix", os.Args[4])
	require(err)
	handedOver := make(chan amqp.Delivery, prefetch)
	go acknowledge(worker, handedOver)
	outgoing := bufio.NewWriterSize(worker, 1<<16)
	deliveries := consume(os.Args[1], os.Args[2], prefetch)
	for delivery := range deliveries {
		if delivery.Type != "job" {
			require(delivery.Reject(false))
			continue
		}
		require(binary.Write(outgoing, binary.BigEndian, uint32(len(delivery.Body))))
		_, err = outgoing.Write(delivery.Body)
		require(err)
		handedOver <- delivery
		if len(deliveries) == 0 {
			require(outgoing.Flush())
		}
	}
	log.Fatal("the broker has hung up")
}
