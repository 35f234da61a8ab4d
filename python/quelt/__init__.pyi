from . import aio as aio
from ._quelt import (ConnectFailed as ConnectFailed, Device as Device, Error as Error,
                     LinkLost as LinkLost, NoAdapter as NoAdapter, NotConnected as NotConnected, NotFound as NotFound,
                     State as State, UartLink as UartLink, Unavailable as Unavailable,
                     Unusable as Unusable, backends as backends, scan as scan, sim as sim,
                     use_backend as use_backend)
