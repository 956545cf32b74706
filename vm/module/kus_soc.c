// SPDX-License-Identifier: GPL-2.0
/*
 * Test equipment of the virtual terminal: what its SoC has and QEMU's machine lacks.
 *
 * Each of the two USB controller nodes in the device tree gets a "mode" file and stands for
 * controllers that are there anyway: ssusb for PCI's xhci, hsusb for every dummy_hcd. Mode "none"
 * takes their drivers and with them all devices away, "host" gives the drivers back. The
 * controllers point at the node's child, which their root hubs then show as "devspec".
 *
 * This must be loaded before the controllers' drivers: a root hub takes over the node when it is
 * made. Two power supplies, "dc" and "usb", have an "online" that can be written.
 *
 * Copyright (C) 2026 The kusd authors
 */

#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/of.h>
#include <linux/of_device.h>
#include <linux/pci.h>
#include <linux/platform_device.h>
#include <linux/power_supply.h>
#include <linux/sysfs.h>
#include <linux/usb/gadget.h>

enum kus_mode { KUS_MODE_NONE, KUS_MODE_HOST, KUS_MODE_PERIPHERAL };

static const char *const kus_mode_names[] = {
	[KUS_MODE_NONE] = "none",
	[KUS_MODE_HOST] = "host",
	[KUS_MODE_PERIPHERAL] = "peripheral",
};

struct kus_port {
	struct bus_type *bus;
	bool (*owns)(struct device *dev);	/* asked about the devices of the bus */
	void (*before_release)(struct device *dev);
	void (*after_attach)(struct device *dev);
	struct device_node *core;
	struct notifier_block bus_notifier;
	struct mutex lock;			/* held while the mode changes */
	enum kus_mode mode;
};

static bool kus_is_xhci(struct device *dev)
{
	return to_pci_dev(dev)->class == PCI_CLASS_SERIAL_USB_XHCI;
}

static bool kus_is_dummy_hcd(struct device *dev)
{
	return str_has_prefix(dev_name(dev), "dummy_hcd.");
}

static int kus_is_gadget(struct device *dev, void *data)
{
	return str_has_prefix(dev_name(dev), "gadget.");
}

/* The device at the other end of a dummy_hcd, to be put by the caller, or NULL. */
static struct usb_gadget *kus_get_gadget(struct device *hcd)
{
	struct device *udc, *gadget = NULL;
	char name[24];

	snprintf(name, sizeof(name), "dummy_udc.%d", to_platform_device(hcd)->id);
	udc = bus_find_device_by_name(&platform_bus_type, NULL, name);
	if (udc)
		gadget = device_find_child(udc, NULL, kus_is_gadget);
	put_device(udc);
	return gadget ? dev_to_usb_gadget(gadget) : NULL;
}

/* Of the dummy_hcds, by number: whose gadget was connected when it was released. */
static unsigned long kus_pulled_out;

/*
 * dummy_hcd follows a null pointer when its gadget sends something while it has no driver, so the
 * gadget is pulled out before, as a port without power would do.
 */
static void kus_pull_out(struct device *hcd)
{
	struct usb_gadget *gadget = kus_get_gadget(hcd);

	if (!gadget)
		return;
	if (gadget->connected) {
		set_bit(to_platform_device(hcd)->id, &kus_pulled_out);
		usb_gadget_disconnect(gadget);
	}
	usb_put_gadget(gadget);
}

static void kus_plug_in(struct device *hcd)
{
	struct usb_gadget *gadget = kus_get_gadget(hcd);

	if (!gadget)
		return;
	if (test_and_clear_bit(to_platform_device(hcd)->id, &kus_pulled_out))
		usb_gadget_connect(gadget);
	usb_put_gadget(gadget);
}

/* The bus puts the node when it releases the device. */
static int kus_adopt(struct device *dev, void *data)
{
	struct kus_port *port = data;

	if (port->owns(dev) && !dev->of_node) {
		dev->of_node = of_node_get(port->core);
		dev->of_node_reused = true;
	}
	return 0;
}

static int kus_bus_event(struct notifier_block *nb, unsigned long event, void *dev)
{
	if (event == BUS_NOTIFY_ADD_DEVICE)
		kus_adopt(dev, container_of(nb, struct kus_port, bus_notifier));
	return NOTIFY_DONE;
}

static int kus_attach(struct device *dev, void *data)
{
	struct kus_port *port = data;
	int ret;

	if (!port->owns(dev))
		return 0;
	ret = device_attach(dev);
	if (ret < 0)
		return ret;
	if (ret && port->after_attach)
		port->after_attach(dev);
	return 0;
}

static int kus_release(struct device *dev, void *data)
{
	struct kus_port *port = data;

	if (!port->owns(dev))
		return 0;
	if (port->before_release)
		port->before_release(dev);
	device_release_driver(dev);
	return 0;
}

static int kus_set_mode(struct device *dev, struct kus_port *port, enum kus_mode mode)
{
	int ret;

	if (mode == port->mode)
		return 0;
	dev_info(dev, "mode %s\n", kus_mode_names[mode]);
	ret = bus_for_each_dev(port->bus, NULL, port,
			       mode == KUS_MODE_HOST ? kus_attach : kus_release);
	if (!ret)
		WRITE_ONCE(port->mode, mode);
	return ret;
}

static ssize_t mode_show(struct device *dev, struct device_attribute *attr, char *buf)
{
	struct kus_port *port = dev_get_drvdata(dev);

	return sysfs_emit(buf, "%s\n", kus_mode_names[READ_ONCE(port->mode)]);
}

static ssize_t mode_store(struct device *dev, struct device_attribute *attr, const char *buf,
			  size_t count)
{
	struct kus_port *port = dev_get_drvdata(dev);
	int mode, ret;

	mode = sysfs_match_string(kus_mode_names, buf);
	if (mode < 0)
		return mode;
	mutex_lock(&port->lock);
	ret = kus_set_mode(dev, port, mode);
	mutex_unlock(&port->lock);
	return ret ?: count;
}
static DEVICE_ATTR_RW(mode);

static struct attribute *kus_port_attrs[] = {
	&dev_attr_mode.attr,
	NULL
};
ATTRIBUTE_GROUPS(kus_port);

static int kus_port_probe(struct platform_device *pdev)
{
	struct kus_port *port = (struct kus_port *)of_device_get_match_data(&pdev->dev);
	int ret;

	port->core = of_get_next_child(pdev->dev.of_node, NULL);
	if (!port->core)
		return -EINVAL;
	platform_set_drvdata(pdev, port);
	ret = bus_register_notifier(port->bus, &port->bus_notifier);
	if (ret) {
		of_node_put(port->core);
		return ret;
	}
	return bus_for_each_dev(port->bus, NULL, port, kus_adopt);
}

static struct kus_port kus_ssusb = {
	.bus = &pci_bus_type,
	.owns = kus_is_xhci,
	.bus_notifier = { .notifier_call = kus_bus_event },
	.lock = __MUTEX_INITIALIZER(kus_ssusb.lock),
	.mode = KUS_MODE_HOST,
};

static struct kus_port kus_hsusb = {
	.bus = &platform_bus_type,
	.owns = kus_is_dummy_hcd,
	.before_release = kus_pull_out,
	.after_attach = kus_plug_in,
	.bus_notifier = { .notifier_call = kus_bus_event },
	.lock = __MUTEX_INITIALIZER(kus_hsusb.lock),
	.mode = KUS_MODE_HOST,
};

static const struct of_device_id kus_port_of_match[] = {
	{ .compatible = "kus,ssusb", .data = &kus_ssusb },
	{ .compatible = "kus,hsusb", .data = &kus_hsusb },
	{ }
};
MODULE_DEVICE_TABLE(of, kus_port_of_match);

/* Neither driver can be unbound, nor the module unloaded: nothing here is ever taken down. */
static struct platform_driver kus_port_driver = {
	.probe = kus_port_probe,
	.driver = {
		.name = "kus-port",
		.of_match_table = kus_port_of_match,
		.dev_groups = kus_port_groups,
		.suppress_bind_attrs = true,
	},
};

/* The driver's data of a supply is the value of its "online". */
static int kus_supply_get(struct power_supply *psy, enum power_supply_property psp,
			  union power_supply_propval *val)
{
	int *online = power_supply_get_drvdata(psy);

	val->intval = READ_ONCE(*online);
	return 0;
}

static int kus_supply_set(struct power_supply *psy, enum power_supply_property psp,
			  const union power_supply_propval *val)
{
	int *online = power_supply_get_drvdata(psy);

	/* 2 is a supply that is online at a voltage that can be programmed. */
	if (val->intval < 0 || val->intval > 2)
		return -EINVAL;
	WRITE_ONCE(*online, val->intval);
	dev_info(&psy->dev, "online %d\n", val->intval);
	power_supply_changed(psy);
	return 0;
}

static int kus_supply_is_writeable(struct power_supply *psy, enum power_supply_property psp)
{
	return psp == POWER_SUPPLY_PROP_ONLINE;
}

static enum power_supply_property kus_supply_properties[] = { POWER_SUPPLY_PROP_ONLINE };

#define KUS_SUPPLY(_name, _type) {					\
	.name = _name,							\
	.type = _type,							\
	.properties = kus_supply_properties,				\
	.num_properties = ARRAY_SIZE(kus_supply_properties),		\
	.get_property = kus_supply_get,					\
	.set_property = kus_supply_set,					\
	.property_is_writeable = kus_supply_is_writeable,		\
}

static const struct power_supply_desc kus_supplies[] = {
	KUS_SUPPLY("dc", POWER_SUPPLY_TYPE_MAINS),
	KUS_SUPPLY("usb", POWER_SUPPLY_TYPE_USB),
};

/* A terminal in its dock, which feeds it through the DC contacts. */
static int kus_supply_online[ARRAY_SIZE(kus_supplies)] = { 1, 0 };

static int kus_supplies_probe(struct platform_device *pdev)
{
	struct power_supply_config config = { .of_node = pdev->dev.of_node };
	struct power_supply *psy;
	int i;

	for (i = 0; i < ARRAY_SIZE(kus_supplies); i++) {
		config.drv_data = &kus_supply_online[i];
		psy = devm_power_supply_register(&pdev->dev, &kus_supplies[i], &config);
		if (IS_ERR(psy))
			return PTR_ERR(psy);
	}
	return 0;
}

static const struct of_device_id kus_supplies_of_match[] = {
	{ .compatible = "kus,supplies" },
	{ }
};
MODULE_DEVICE_TABLE(of, kus_supplies_of_match);

static struct platform_driver kus_supplies_driver = {
	.probe = kus_supplies_probe,
	.driver = {
		.name = "kus-supplies",
		.of_match_table = kus_supplies_of_match,
		.suppress_bind_attrs = true,
	},
};

static struct platform_driver *const kus_drivers[] = {
	&kus_port_driver,
	&kus_supplies_driver,
};

static int __init kus_soc_init(void)
{
	return platform_register_drivers(kus_drivers, ARRAY_SIZE(kus_drivers));
}
module_init(kus_soc_init);

MODULE_DESCRIPTION("USB controllers' modes and power supplies of the virtual terminal");
MODULE_AUTHOR("The kusd authors");
MODULE_LICENSE("GPL");
