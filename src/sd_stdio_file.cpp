// placeholder: this module is being written
